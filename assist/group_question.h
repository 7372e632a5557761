// Questions about one group on one interface that are still to be asked: who listens, after a message that may have
// removed a listener, and again after the daemon has ended the group. The daemon itself asks nobody after a block, asks
// nobody while another router is querier, and does not take the answers of MLDv1 hosts for the sources it has noted.
#pragma once

#include "assist/group_entry.h"
#include "assist/host_report.h"
#include "assist/mld_message.h"
#include "assist/notification.h"

#include <array>
#include <cstddef>
#include <cstdint>

// More than this many removed sources count as all.
inline constexpr std::size_t MOST_REMOVED_SOURCES = 4;

struct group_question {
  std::uint32_t index; // interface, 0 = the record is free
  ipv6_address group;
  std::int64_t leave_due_ms; // NO_DEADLINE = no such question
  std::int64_t end_due_ms;
  std::int64_t end_quiet_ms; // no question about an end before this
  std::int32_t ends_left;    // how often it is still asked about the end
  bool is_forwarded;         // the kernel has an entry for what was left
  bool is_about_all;         // every source, not just those below
  std::array<ipv6_address, MOST_REMOVED_SOURCES> removed;
  std::size_t removed_count;
};

// Forgets all questions.
void forget_questions();

// Forgets the questions about ends: the daemon itself has ended.
void forget_ends();

// Forgets the questions for one interface.
void forget_questions_of(std::uint32_t index);

// A host that leaves: whoever still listens is to be asked.
void ask_about_report(const host_report &report);

// Another querier's query about a group, which hosts answer: what it asks need not be asked again.
void hear_group_query(std::uint32_t index, const mld_query_fields &query);

// The group has ended on the downstream interfaces among the outputs: they are asked who still listens.
void ask_where_group_ended(const ipv6_address &group, mif_set outputs);

// Acts on a change of a forwarding entry: one that goes means the end of a group, one that comes its return.
void handle_group_entry(const notification &event);

// When the next question for the interface is due; NO_DEADLINE = never.
std::int64_t next_question_ms(std::uint32_t index);

// Takes the question that has been due longest. False if none is due.
bool take_due_question(std::uint32_t index, ipv6_address &group);

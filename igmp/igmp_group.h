// Group records between the pool and an interface's list, and their texts.
#pragma once

#include "core/log.h"
#include "igmp/igmp_router.h"

// The interface's record of a group; null if it has none.
igmp_group *igmp_find_group(const igmp_interface *intr, std::uint32_t address);

// 239.255.255.250 (service discovery), which fills every LAN and is never wanted from upstream. On a little-endian
// router the word of a packet with that group compares unequal, so there the group is tracked like any other.
bool igmp_is_special_group(std::uint32_t address);

// Display text of the group's state. Checking membership shows as "Version 2 Members present state": the texts have
// one entry more than there are states; kept for compatibility. Logs a state that does not exist, and still
// returns its text; null where there is none.
const char *getGroupState(const igmp_group *group);

// Takes a record from the pool for a group with members: zeroed, full group timer, on no list yet. When the pool is
// empty, logs for `site` and returns null; the report is lost then.
igmp_group *igmp_take_group(log_site site, std::uint32_t address);

// Gives the group's pending queries back to their pool.
void igmp_return_queries(igmp_group *group);

// The same, if queries are what the group waits for: a report cancels them.
void igmp_cancel_queries(igmp_group *group);

// Ends a group that was unlinked from its interface: queries and record go back to their pools.
void igmp_release_group(igmp_group *group);

// Queues `last_member_query_count` queries for the group. Returns false when the pool is empty (the caller logs
// that); those queued before stay.
bool igmp_queue_queries(igmp_group *group);

struct igmp_word_text {
  std::array<char, 16> characters; // four octets of up to three digits, three dots, NUL
};

// The four bytes of a word as they lie in memory, which is the order on the wire: "239.1.2.3". Texts made with
// my_inet_ntoa read the word from its most significant octet instead and come out reversed on a little-endian router;
// each log line has its own of the two.
igmp_word_text igmp_word_to_log_text(std::uint32_t word);

// Argument for a "%s" of a log line; the text lives until the end of that statement.
#define IGMP_WORD_TEXT(word) (igmp_word_to_log_text(word).characters.data())

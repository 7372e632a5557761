#include "assist/group_question.h"

#include "assist/interface_watch.h"
#include "assist/remedy.h"
#include "assist/retry.h"
#include "assist/static_entry.h"
#include "core/bulk_memory.h"

#include <algorithm>
#include <linux/mroute6.h>
#include <span>
#include <sys/ioctl.h>

namespace {

// Not enough for every group that the daemon can have (MLD_GROUP_POOL_SIZE) on every LAN at once.
constexpr std::size_t most_questions = 128;
// Of these, about groups that the kernel has no entry for: what a host makes up must not keep others waiting.
constexpr std::size_t most_unforwarded = 8;

constexpr std::int64_t after_leave_ms = 500;
// The daemon takes an entry away and adds it again at once when it refreshes a group for all sources.
constexpr std::int64_t after_end_ms = 100;
constexpr std::int64_t end_repeat_ms = 1000;
constexpr std::int32_t end_questions = 2; // robustness variable (RFC 3810, section 9.1)
constexpr std::int64_t end_quiet_ms = 5000;

// The daemon ends a group at the earliest 12 s after the leave; answers to another querier must come before.
constexpr std::uint32_t longest_response_ms = 10000;

IN_BULK_MEMORY std::array<group_question, most_questions> questions;

bool is_pending(const group_question &question) {
  return question.index != 0 && (question.leave_due_ms != NO_DEADLINE || question.end_due_ms != NO_DEADLINE);
}

bool is_free(const group_question &question) {
  return !is_pending(question) && monotonic_ms() >= question.end_quiet_ms;
}

group_question *find_question(std::uint32_t index, const ipv6_address &group) {
  for (group_question &question : questions) {
    if (question.index == index && question.group == group) {
      return &question;
    }
  }
  return nullptr;
}

// The question about this group, a new one if need be; null when there is no room.
group_question *place_question(std::uint32_t index, const ipv6_address &group) {
  if (group_question *found = find_question(index, group)) {
    return found;
  }
  const auto free = std::ranges::find_if(questions, is_free);
  if (free == questions.end()) {
    return nullptr;
  }
  *free = {};
  free->index = index;
  free->group = group;
  free->leave_due_ms = NO_DEADLINE;
  free->end_due_ms = NO_DEADLINE;
  return &*free;
}

bool may_ask_about_unforwarded() {
  const auto waits = [](const group_question &question) { return is_pending(question) && !question.is_forwarded; };
  return static_cast<std::size_t>(std::ranges::count_if(questions, waits)) < most_unforwarded;
}

bool has_entry(const ipv6_address &origin, const ipv6_address &group) {
  sioc_sg_req6 asked{};
  asked.src.sin6_addr = to_in6_addr(origin);
  asked.grp.sin6_addr = to_in6_addr(group);
  return ioctl(InterfaceWatch.routing_socket, SIOCGETSGCNT_IN6, &asked) == 0;
}

// Of a message that names no sources only the entry for all of them is looked for.
bool is_forwarded(const ipv6_address &group, const mld_record *record) {
  if (has_entry(In6AddrAny, group)) {
    return true;
  }
  const std::size_t count = record == nullptr ? 0 : std::min(mld_record_source_count(*record), MOST_REMOVED_SOURCES);
  for (std::size_t i = 0; i < count; ++i) {
    if (has_entry(mld_record_source(*record, i), group)) {
      return true;
    }
  }
  return false;
}

void add_removed(group_question &question, const ipv6_address &source) {
  const std::span<const ipv6_address> known = std::span{question.removed}.first(question.removed_count);
  if (source == In6AddrAny) {
    question.is_about_all = true;
  } else if (std::ranges::find(known, source) != known.end()) {
    return;
  } else if (question.removed_count == question.removed.size()) {
    question.is_about_all = true;
  } else {
    question.removed[question.removed_count++] = source;
  }
}

void note_removed(group_question &question, const mld_record *record) {
  if (record == nullptr) {
    question.is_about_all = true;
    return;
  }
  for (std::size_t i = 0; i < mld_record_source_count(*record) && !question.is_about_all; ++i) {
    add_removed(question, mld_record_source(*record, i));
  }
}

// `record` is a block record, null where all sources were left.
void ask_after_leave(std::uint32_t index, const ipv6_address &group, const mld_record *record) {
  if (is_link_local_group(group) || group[0] != IPV6_MULTICAST_FIRST_BYTE) {
    return;
  }
  group_question *question = find_question(index, group);
  if (question == nullptr || question->leave_due_ms == NO_DEADLINE) {
    const bool is_known = is_forwarded(group, record);
    if (!is_known && !may_ask_about_unforwarded()) {
      return;
    }
    question = place_question(index, group);
    if (question == nullptr) {
      return;
    }
    question->is_forwarded = is_known;
    question->is_about_all = false;
    question->removed_count = 0;
    question->leave_due_ms = monotonic_ms() + after_leave_ms;
  }
  note_removed(*question, record);
}

bool is_listed(const ipv6_address &source, std::span<const std::uint8_t> sources) {
  for (; sources.size() >= source.size(); sources = sources.subspan(source.size())) {
    if (std::equal(source.begin(), source.end(), sources.begin())) {
      return true;
    }
  }
  return false;
}

bool covers(const mld_query_fields &query, const group_question &question) {
  if (query.sources.empty()) {
    return true;
  }
  if (question.is_about_all) {
    return false;
  }
  const std::span<const ipv6_address> removed = std::span{question.removed}.first(question.removed_count);
  return std::ranges::all_of(removed, [&](const ipv6_address &source) { return is_listed(source, query.sources); });
}

bool is_among(const watched_interface &watched, mif_set outputs) {
  return !watched.is_upstream && watched.index != 0 && (outputs & output_bit(watched.index)) != 0;
}

void ask_after_end(std::uint32_t index, const ipv6_address &group) {
  group_question *question = place_question(index, group);
  if (question == nullptr || question->end_due_ms != NO_DEADLINE) {
    return;
  }
  question->is_forwarded = true;
  question->ends_left = end_questions;
  question->end_due_ms = std::max(monotonic_ms() + after_end_ms, question->end_quiet_ms);
}

void take_end(group_question &question) {
  --question.ends_left;
  question.end_due_ms = question.ends_left > 0 ? monotonic_ms() + end_repeat_ms : NO_DEADLINE;
  question.end_quiet_ms = monotonic_ms() + end_quiet_ms;
}

std::int64_t due_ms(const group_question &question) { return std::min(question.leave_due_ms, question.end_due_ms); }

group_question *next_question(std::uint32_t index) {
  group_question *next = nullptr;
  for (group_question &question : questions) {
    if (question.index == index && is_pending(question) && (next == nullptr || due_ms(question) < due_ms(*next))) {
      next = &question;
    }
  }
  return next;
}

} // namespace

// Places that were never taken are not written to: that would cost their pages.
void forget_questions() {
  for (group_question &question : questions) {
    if (question.index != 0) {
      question = {};
    }
  }
}

void forget_ends() {
  for (group_question &question : questions) {
    if (question.index != 0) {
      question.end_due_ms = NO_DEADLINE;
    }
  }
}

void forget_questions_of(std::uint32_t index) {
  for (group_question &question : questions) {
    if (question.index == index) {
      question = {};
    }
  }
}

void ask_about_report(const host_report &report) {
  if (!is_on(remedy::ask_after_leave)) {
    return;
  }
  // The daemon takes no notice of an MLDv1 done, but the snooping of a bridge waits for a query before it closes the
  // port.
  if (report.wish == host_wish::none || report.wish == host_wish::not_listed) {
    ask_after_leave(report.index, report.group, report.listed);
  }
}

void hear_group_query(std::uint32_t index, const mld_query_fields &query) {
  if (!is_on(remedy::ask_after_leave) || query.max_response_ms > longest_response_ms) {
    return;
  }
  group_question *question = find_question(index, query.group);
  if (question != nullptr && covers(query, *question)) {
    question->leave_due_ms = NO_DEADLINE;
  }
}

void ask_where_group_ended(const ipv6_address &group, mif_set outputs) {
  // With the daemon's end all entries go; nobody would hear the answers.
  if (!is_on(remedy::ask_after_end) || !StaticEntry.is_mif_registered) {
    return;
  }
  for (const watched_interface &watched : watched_interfaces()) {
    if (is_among(watched, outputs)) {
      ask_after_end(watched.index, group);
    }
  }
}

void handle_group_entry(const notification &event) {
  if (event.kind == notification_kind::entry_gone) {
    ask_where_group_ended(event.group, event.outputs);
    return;
  }
  for (const watched_interface &watched : watched_interfaces()) {
    if (group_question *question = find_question(watched.index, event.group);
        question != nullptr && is_among(watched, event.outputs)) {
      question->end_due_ms = NO_DEADLINE;
    }
  }
}

std::int64_t next_question_ms(std::uint32_t index) {
  const group_question *next = next_question(index);
  return next == nullptr ? NO_DEADLINE : due_ms(*next);
}

bool take_due_question(std::uint32_t index, ipv6_address &group) {
  group_question *next = next_question(index);
  if (next == nullptr || due_ms(*next) > monotonic_ms()) {
    return false;
  }
  group = next->group;
  if (next->end_due_ms <= monotonic_ms()) {
    take_end(*next);
  }
  // One query answers both.
  next->leave_due_ms = next->leave_due_ms <= monotonic_ms() ? NO_DEADLINE : next->leave_due_ms;
  return true;
}

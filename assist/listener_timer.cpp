#include "assist/listener_timer.h"

#include <algorithm>

namespace {

constexpr tenths second = 10;

// All in ticks of one second, of which the first comes within a second of the message; an end half a second later than
// tarnwick's latest is never before it.
constexpr tenths after_latest = 5;
constexpr tenths silence = 351 * second; // the tick that finds the timer at 0 comes after the 350 that count it down
constexpr tenths leave = 12 * second;    // one query, ten seconds for its answers, and the tick that ends the group
constexpr tenths block = 16 * second;    // the same a second later, then a group timer of 2
constexpr tenths another_query = 2 * second; // each further message queues one more

bool is_leaving(const watched_group &group, std::size_t place) { return (group.leaving >> place & 1U) != 0; }

void set_leaving(watched_group &group, std::size_t place, bool leaving) {
  const std::uint32_t bit = 1U << place;
  const std::uint32_t others = group.leaving & ~bit;
  group.leaving = static_cast<std::uint8_t>(leaving ? others | bit : others);
}

// However many messages come, the end is no later than that of silence.
void shorten(watched_group &group, std::size_t place, tenths end, tenths further, tenths now) {
  tenths &ends_at = group.ends_at[place];
  if (ends_at == NOT_TIMED) {
    return; // tarnwick has not the group there
  }
  const tenths later = is_leaving(group, place) ? std::max(ends_at + further, end) : end;
  ends_at = std::min(later, end_of_silence(now));
  set_leaving(group, place, true);
}

} // namespace

tenths end_of_silence(tenths now) { return now + silence + after_latest; }

void time_join(watched_group &group, std::size_t place, tenths now) {
  group.ends_at[place] = end_of_silence(now);
  set_leaving(group, place, false);
}

void time_leave(watched_group &group, std::size_t place, tenths now) {
  shorten(group, place, now + leave + after_latest, another_query, now);
}

void time_block(watched_group &group, std::size_t place, std::size_t source_count, tenths now) {
  const tenths queries = static_cast<tenths>(source_count) * another_query;
  shorten(group, place, now + block - another_query + queries + after_latest, queries, now);
}

#include "run/pacing.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace {

constexpr std::array waits_s{1, 2, 5, 10, 30};
constexpr std::int64_t ms_per_second = 1000;
constexpr std::int64_t long_life_ms = 30 * ms_per_second;
constexpr std::int64_t least_between_starts_ms = ms_per_second;

} // namespace

int pace_after_end(pacing &pace, std::int64_t started_ms, std::int64_t now_ms) {
  if (now_ms - started_ms >= long_life_ms) {
    pace.early_ends = 0;
  }
  const int wait_s = waits_s[std::min(static_cast<std::size_t>(pace.early_ends), waits_s.size() - 1)];
  pace.early_ends = std::min(pace.early_ends + 1, static_cast<int>(waits_s.size()));
  pace.not_before_ms = now_ms + wait_s * ms_per_second;
  return wait_s;
}

void pace_after_stop(pacing &pace, std::int64_t started_ms) {
  pace.early_ends = 0;
  pace.not_before_ms = started_ms + least_between_starts_ms;
}

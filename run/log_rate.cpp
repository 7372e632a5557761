#include "run/log_rate.h"

#include <algorithm>

namespace {

constexpr std::int64_t second_ms = 1000;

bool is_over(const log_rate &rate, std::int64_t now_ms) { return now_ms - rate.second_began_ms >= second_ms; }

} // namespace

bool may_pass(log_rate &rate, std::int64_t now_ms) {
  if (is_over(rate, now_ms)) {
    rate.second_began_ms = now_ms;
    rate.passed = 0;
  }
  if (rate.passed < MOST_LOG_LINES_A_SECOND) {
    ++rate.passed;
    return true;
  }
  ++rate.left_out;
  return false;
}

int ms_until_summary(const log_rate &rate, std::int64_t now_ms) {
  if (rate.left_out == 0) {
    return -1;
  }
  return static_cast<int>(std::clamp(rate.second_began_ms + second_ms - now_ms, std::int64_t{0}, second_ms));
}

std::uint64_t take_left_out(log_rate &rate, std::int64_t now_ms) {
  if (rate.left_out == 0 || !is_over(rate, now_ms)) {
    return 0;
  }
  const std::uint64_t count = rate.left_out;
  rate.left_out = 0;
  return count;
}

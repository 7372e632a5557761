// Waiting times as poll(2) takes them: milliseconds, -1 = for ever.
#pragma once

#include <algorithm>

constexpr int shorter_wait(int one_ms, int other_ms) {
  if (one_ms < 0 || other_ms < 0) {
    return std::max(one_ms, other_ms);
  }
  return std::min(one_ms, other_ms);
}

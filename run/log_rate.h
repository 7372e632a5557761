// At most so many lines a second are passed on; the others are counted.
#pragma once

#include <cstdint>

inline constexpr unsigned MOST_LOG_LINES_A_SECOND = 200;

struct log_rate {
  std::int64_t second_began_ms;
  unsigned passed; // in this second
  std::uint64_t left_out;
};

// Whether one more line may be passed on; counts it either way.
bool may_pass(log_rate &rate, std::int64_t now_ms);

// Milliseconds until the second is over in which lines were left out; -1 = none were.
int ms_until_summary(const log_rate &rate, std::int64_t now_ms);

// How many lines were left out, once their second is over; else 0. Begins to count anew.
std::uint64_t take_left_out(log_rate &rate, std::int64_t now_ms);

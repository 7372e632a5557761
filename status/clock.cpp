#include "status/clock.h"

#include <ctime>

std::int64_t monotonic_milliseconds() {
  constexpr std::int64_t milliseconds_per_second = 1000;
  constexpr std::int64_t nanoseconds_per_millisecond = 1'000'000;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * milliseconds_per_second + now.tv_nsec / nanoseconds_per_millisecond;
}

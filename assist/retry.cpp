#include "assist/retry.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace {

constexpr std::int64_t retry_ms = 1000;
constexpr std::int64_t no_retry = -1;
constexpr std::int64_t ms_per_second = 1000;
constexpr std::int64_t ns_per_ms = 1000000;
constexpr std::int64_t us_per_second = 1000000;
constexpr std::int64_t ns_per_us = 1000;

std::int64_t retry_at_ms = no_retry;

} // namespace

std::int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * ms_per_second + now.tv_nsec / ns_per_ms;
}

std::int64_t processor_us() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return used.tv_sec * us_per_second + used.tv_nsec / ns_per_us;
}

void want_retry() {
  if (retry_at_ms == no_retry) {
    retry_at_ms = monotonic_ms() + retry_ms;
  }
}

void want_retry_after(int reason) {
  if (reason == ENOMEM || reason == ENOBUFS) {
    want_retry();
  }
}

int ms_until_retry() {
  if (retry_at_ms == no_retry) {
    return -1;
  }
  return static_cast<int>(std::clamp<std::int64_t>(retry_at_ms - monotonic_ms(), 0, retry_ms));
}

bool take_due_retry() {
  if (retry_at_ms == no_retry || monotonic_ms() < retry_at_ms) {
    return false;
  }
  retry_at_ms = no_retry;
  return true;
}

// Preloaded into the companion under test: its clock runs FAST_CLOCK times as fast, so that minutes between its queries
// pass in seconds. The companion itself knows nothing of it.

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr std::int64_t ns_per_second = 1'000'000'000;

std::int64_t factor() {
  const char *text = std::getenv("FAST_CLOCK");
  const long read = text != nullptr ? std::atol(text) : 1;
  return read > 1 ? read : 1;
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  const std::int64_t hurried_ns =
      (now->tv_sec * ns_per_second + now->tv_nsec) * (clock == CLOCK_MONOTONIC ? factor() : 1);
  *now = {static_cast<time_t>(hurried_ns / ns_per_second), static_cast<long>(hurried_ns % ns_per_second)};
  return static_cast<int>(result);
}

// The first millisecond of a wait is not shortened, or a short wait would become none.
extern "C" int poll(pollfd *watched, nfds_t count, int timeout_ms) {
  const std::int64_t wait_ms = timeout_ms < 0 ? timeout_ms : (timeout_ms + factor() - 1) / factor();
  const timespec wait{static_cast<time_t>(wait_ms / 1000), static_cast<long>(wait_ms % 1000 * 1'000'000)};
  return static_cast<int>(syscall(SYS_ppoll, watched, count, timeout_ms < 0 ? nullptr : &wait, nullptr, 0));
}

// Preloaded into the daemon under test: its one-second tick comes FAST_TICK_PER_SECOND times a second, so that minutes
// of group and querier timers pass in seconds. The daemon itself knows nothing of it.

#include <cstdlib>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr long microseconds_per_second = 1'000'000;

timeval hurried(const timeval &period, long per_second) {
  const long microseconds = (period.tv_sec * microseconds_per_second + period.tv_usec) / per_second;
  return {microseconds / microseconds_per_second, microseconds % microseconds_per_second};
}

} // namespace

extern "C" int setitimer(int which, const itimerval *wanted, itimerval *previous) noexcept {
  const char *text = std::getenv("FAST_TICK_PER_SECOND");
  const long per_second = text != nullptr ? std::atol(text) : 1;
  itimerval changed = *wanted;
  if (per_second > 1) {
    changed.it_interval = hurried(wanted->it_interval, per_second);
    changed.it_value = hurried(wanted->it_value, per_second);
  }
  return static_cast<int>(syscall(SYS_setitimer, which, &changed, previous));
}

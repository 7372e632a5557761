#include "core/signals.h"

#include "core/log.h"

#include <cerrno>
#include <unistd.h>

std::array<int, 2> timer_pipe{-1, -1};
volatile std::sig_atomic_t ProxyIsRunning = 0;
volatile std::sig_atomic_t StateDumpIsWanted = 0;

namespace {

ssize_t write_tick() { return write(timer_pipe[1], TICK_MESSAGE.data(), TICK_MESSAGE.size()); }

} // namespace

void router_tick(int) {
  const int interrupted_errno = errno;
  if (write_tick() < 0) {
    log_error(MAIN_HERE, "Timer write failed.");
  }
  errno = interrupted_errno;
}

void router_stop(int) {
  const int interrupted_errno = errno;
  ProxyIsRunning = 0;
  write_tick();
  errno = interrupted_errno;
}

void router_dump(int) { StateDumpIsWanted = 1; }

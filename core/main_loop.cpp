#include "core/main_loop.h"

#include "core/log.h"
#include "core/signals.h"
#include "core/state_dump.h"
#include "mld/mld_receive.h"
#include "mld/mld_router.h"
#include "mld/mld_shutdown.h"
#include "mld/mld_timers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#define LOOP_HERE MAIN_STEP_OF("main")

namespace {

constexpr time_t tick_seconds = 1;

// Room for several ticks: those queued while the loop was busy are drained as one.
using tick_buffer = std::array<char, 20>;

struct watch_list {
  fd_set descriptors;
  int highest;
};

bool can_be_watched(int descriptor) { return descriptor >= 0 && descriptor < FD_SETSIZE; }

void watch(watch_list &watched, int descriptor) {
  if (can_be_watched(descriptor)) {
    FD_SET(descriptor, &watched.descriptors);
    watched.highest = std::max(watched.highest, descriptor); // beyond the set, the kernel would write behind it
  }
}

bool is_set(const fd_set &descriptors, int descriptor) {
  return can_be_watched(descriptor) && FD_ISSET(descriptor, &descriptors);
}

ssize_t drain_ticks() {
  tick_buffer ticks;
  return read(timer_pipe[0], ticks.data(), ticks.size());
}

int start_tick() {
  std::signal(SIGALRM, router_tick);
  const itimerval every_second{{tick_seconds, 0}, {tick_seconds, 0}};
  return setitimer(ITIMER_REAL, &every_second, nullptr);
}

void write_wanted_dump() {
  if (StateDumpIsWanted == 1) {
    StateDumpIsWanted = 0;
    write_state_dump();
  }
}

// A signal came while the loop waited. This is the usual path of a tick: the handler has just filled the pipe, and
// `ready` is still what the loop waits for. After SIGUSR1 the pipe is empty and the read waits for the next tick.
// Returns whether the loop goes on.
bool handle_interrupt(const fd_set &ready) {
  if (!is_set(ready, timer_pipe[0])) {
    log_error(LOOP_HERE, "Exiting Application - No data on pipe.");
    return false;
  }
  if (drain_ticks() == -1) {
    log_error(LOOP_HERE, "Read on timer pipe failed.");
    return false;
  }
  if (ProxyIsRunning == 0) {
    return false;
  }
  mld_router_timer_expired();
  return true;
}

// Serves what `select` reported. A stop that is already in the pipe still runs the timer once more.
bool handle_ready(int count, const fd_set &ready) {
  if (is_set(ready, timer_pipe[0])) {
    if (drain_ticks() < 0) {
      log_error(LOOP_HERE, "Read on timer pipe failed.");
      return false;
    }
    mld_router_timer_expired();
    --count;
  }
  if (is_set(ready, MldRouter.socket)) {
    --count;
    mld_network_socket_read_data();
  }
  if (count != 0) {
    log_error(LOOP_HERE, "Num of descriptors=%d.", count);
  }
  return true;
}

void run_until_stopped(const watch_list &watched) {
  ProxyIsRunning = 1;
  fd_set ready = watched.descriptors;
  while (ProxyIsRunning == 1) {
    const int count = select(watched.highest + 1, &ready, nullptr, nullptr, nullptr);
    const int reason = errno;
    if (count == -1 && reason != EINTR) {
      log_error(LOOP_HERE, "Select failed Error Number:%d.", reason);
      return;
    }
    write_wanted_dump();
    if (count == -1) {
      if (!handle_interrupt(ready)) {
        return;
      }
      continue; // `select` leaves the set alone when it fails
    }
    if (!handle_ready(count, ready)) {
      return;
    }
    ready = watched.descriptors;
  }
}

} // namespace

int run_main_loop() {
  if (pipe(timer_pipe.data()) == -1) {
    log_error(LOOP_HERE, "Unable to create network timer.");
    mld_proxy_stop();
    return -1;
  }
  // A handler that waited for room would wait for the thread that it has interrupted, the pipe's only reader.
  fcntl(timer_pipe[1], F_SETFL, O_NONBLOCK);
  watch_list watched{};
  watch(watched, timer_pipe[0]);
  watch(watched, MldRouter.socket);
  if (start_tick() == -1) {
    log_error(LOOP_HERE, "Unable to create the timer.");
    mld_proxy_stop();
    return -1;
  }
  run_until_stopped(watched);
  write_wanted_dump(); // asked for just before the stop, while the loop was at work
  mld_proxy_stop();
  return 0;
}

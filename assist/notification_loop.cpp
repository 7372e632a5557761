#include "assist/notification_loop.h"

#include "assist/deadline.h"
#include "assist/interface_watch.h"
#include "assist/mld_socket.h"
#include "assist/notification_socket.h"
#include "assist/report.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

void say_which_signal(int stop_signals) {
  signalfd_siginfo received;
  if (read(stop_signals, &received, sizeof(received)) == static_cast<ssize_t>(sizeof(received))) {
    say("ending on signal %u", received.ssi_signo);
  }
}

} // namespace

int open_stop_signals() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  const int opened = sigprocmask(SIG_BLOCK, &stop, nullptr) == 0 ? signalfd(-1, &stop, SFD_CLOEXEC) : -1;
  if (opened < 0) {
    say_refused(errno, "cannot wait for signals");
  }
  return opened;
}

int run_until_stopped(const loop_descriptors &waited) {
  bool has_lost_some = false;
  notification_state state = notification_state::all_read;
  mld_state heard = mld_state::all_read;
  for (;;) {
    std::array<pollfd, 3> watched{
        {{waited.stop_signals, POLLIN, 0}, {waited.notifications, POLLIN, 0}, {waited.mld, POLLIN, 0}}};
    const bool waits = state == notification_state::all_read && heard == mld_state::all_read;
    if (poll(watched.data(), watched.size(), waits ? ms_until_next_deadline() : 0) < 0 && errno != EINTR) {
      say_refused(errno, "cannot wait for kernel notifications");
      return EXIT_FAILURE;
    }
    if (watched[0].revents != 0) {
      say_which_signal(waited.stop_signals);
      return EXIT_SUCCESS;
    }
    state = handle_notifications(waited.notifications);
    heard = handle_mld_messages(waited.mld);
    if (state == notification_state::failed || heard == mld_state::failed) {
      return EXIT_FAILURE;
    }
    has_lost_some = has_lost_some || state == notification_state::lost;
    // The kernel drops everything until its queue has been read to the end; looking earlier would miss that.
    if (state != notification_state::all_read) {
      continue;
    }
    if (has_lost_some) {
      say("kernel notifications were lost; looking at everything again");
      has_lost_some = false;
      look_at_everything();
    }
    handle_deadlines();
  }
}

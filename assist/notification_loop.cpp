#include "assist/notification_loop.h"

#include "assist/interface_watch.h"
#include "assist/notification_socket.h"
#include "assist/report.h"
#include "assist/retry.h"

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

int run_until_stopped(int stop_signals, int notifications) {
  bool has_lost_some = false;
  notification_state state = notification_state::all_read;
  for (;;) {
    std::array<pollfd, 2> watched{{{stop_signals, POLLIN, 0}, {notifications, POLLIN, 0}}};
    const bool waits = state == notification_state::all_read;
    if (poll(watched.data(), watched.size(), waits ? ms_until_retry() : 0) < 0 && errno != EINTR) {
      say_refused(errno, "cannot wait for kernel notifications");
      return EXIT_FAILURE;
    }
    if (watched[0].revents != 0) {
      say_which_signal(stop_signals);
      return EXIT_SUCCESS;
    }
    state = handle_notifications(notifications);
    if (state == notification_state::failed) {
      return EXIT_FAILURE;
    }
    has_lost_some = has_lost_some || state == notification_state::lost;
    // The kernel drops everything until its queue has been read to the end; looking earlier would miss that.
    if (state == notification_state::all_read && (has_lost_some || take_due_retry())) {
      if (has_lost_some) {
        say("kernel notifications were lost; looking at everything again");
      }
      has_lost_some = false;
      look_at_everything();
    }
  }
}

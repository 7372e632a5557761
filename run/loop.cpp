#include "run/loop.h"

#include "run/link_events.h"
#include "run/log_reader.h"
#include "run/poll_wait.h"
#include "run/report.h"
#include "run/supervisor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::int64_t monotonic_ms() {
  constexpr std::int64_t ms_per_second = 1000;
  constexpr std::int64_t ns_per_ms = 1000000;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * ms_per_second + now.tv_nsec / ns_per_ms;
}

// Blocks the signals that the loop serves and returns a descriptor to read them from; -1 after it has said why not.
int open_signals() {
  sigset_t wanted;
  sigemptyset(&wanted);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
    sigaddset(&wanted, number);
  }
  const int opened =
      sigprocmask(SIG_BLOCK, &wanted, nullptr) == 0 ? signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK) : -1;
  if (opened < 0) {
    say_refused(errno, "cannot wait for signals");
  }
  return opened;
}

// One SIGCHLD may stand for several children.
void reap_children(std::int64_t now_ms) {
  int wait_status = 0;
  for (pid_t pid = waitpid(-1, &wait_status, WNOHANG); pid > 0; pid = waitpid(-1, &wait_status, WNOHANG)) {
    note_end_of_child(pid, wait_status, now_ms);
  }
}

void serve_signals(int signals, std::int64_t now_ms) {
  signalfd_siginfo received;
  while (read(signals, &received, sizeof(received)) == static_cast<ssize_t>(sizeof(received))) {
    switch (received.ssi_signo) {
    case SIGCHLD:
      reap_children(now_ms);
      break;
    case SIGHUP:
      restart_daemon(now_ms);
      break;
    default:
      end_supervision(now_ms);
    }
  }
}

int ms_until_log_is_due(std::int64_t now_ms) {
  const int rest_ms = shorter_wait(ms_until_log_rest_ends(ProgramPair.daemon_log, now_ms),
                                   ms_until_log_rest_ends(ProgramPair.companion_log, now_ms));
  return shorter_wait(ms_until_log_summary(now_ms), rest_ms);
}

int ms_to_wait(std::int64_t next_ms, std::int64_t now_ms) {
  constexpr std::int64_t longest_ms = 60L * 60 * 1000; // poll takes an int
  const int log_ms = ms_until_log_is_due(now_ms);
  if (next_ms == NEVER_MS) {
    return log_ms;
  }
  return shorter_wait(static_cast<int>(std::clamp<std::int64_t>(next_ms - now_ms, 0, longest_ms)), log_ms);
}

void run_until_ended(int signals, int events) {
  std::int64_t next_ms = advance_supervision(monotonic_ms());
  while (Supervisor.phase != supervisor_phase::ended) {
    const std::int64_t waits_from_ms = monotonic_ms();
    std::array<pollfd, 4> watched{{{signals, POLLIN, 0},
                                   {events, POLLIN, 0},
                                   {awaited_log(ProgramPair.daemon_log, waits_from_ms), POLLIN, 0},
                                   {awaited_log(ProgramPair.companion_log, waits_from_ms), POLLIN, 0}}};
    const int count = poll(watched.data(), watched.size(), ms_to_wait(next_ms, waits_from_ms));
    const std::int64_t now_ms = monotonic_ms();
    // Lines first: they say why a child has ended.
    if (count > 0 && watched[2].revents != 0) {
      read_log(ProgramPair.daemon_log);
    }
    if (count > 0 && watched[3].revents != 0) {
      read_log(ProgramPair.companion_log);
    }
    write_due_log_summary(now_ms);
    const bool has_news = count > 0 && (watched[0].revents != 0 || watched[1].revents != 0);
    if (has_news) {
      serve_signals(signals, now_ms);
      drain_link_events(events);
    }
    if (has_news || now_ms >= next_ms) { // a line of the log changes nothing
      next_ms = advance_supervision(now_ms);
    }
  }
}

} // namespace

int run_supervisor(const run_options &options) {
  choose_log_lines(options.log);
  if (!open_log_sink(options)) {
    return EXIT_FAILURE;
  }
  const int signals = open_signals();
  const int events = signals < 0 ? -1 : open_link_events();
  if (events < 0 || !begin_supervision(options)) {
    return EXIT_FAILURE;
  }
  run_until_ended(signals, events);
  finish_supervision();
  close(events);
  close(signals);
  close_log_sink();
  return EXIT_SUCCESS;
}

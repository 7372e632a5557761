#include "status/terminal.h"

#include "status/screen.h"

#include <csignal>
#include <ctime>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t IsRunning = 1;
volatile std::sig_atomic_t IsToStop = 0;
volatile std::sig_atomic_t IsResized = 0;

termios Original;
bool HasKeys = false;

constexpr int handled[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH};

void note_signal(int signal_number) {
  switch (signal_number) {
  case SIGTSTP:
    IsToStop = 1;
    break;
  case SIGWINCH:
    IsResized = 1;
    break;
  default:
    IsRunning = 0;
    break;
  }
}

// Without SA_RESTART: a wait ends when a signal comes.
void install(int signal_number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigaction(signal_number, &action, nullptr);
}

sigset_t handled_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal_number : handled) {
    sigaddset(&signals, signal_number);
  }
  return signals;
}

// Changing the terminal from the background would stop the program. One whose session has ended has no foreground.
bool may_change_terminal() {
  const pid_t foreground = tcgetpgrp(STDIN_FILENO);
  return isatty(STDIN_FILENO) == 1 && (foreground == -1 || foreground == getpgrp());
}

void take_keys() {
  HasKeys = measure_screen(true).is_terminal && may_change_terminal() && tcgetattr(STDIN_FILENO, &Original) == 0;
  if (HasKeys) {
    termios single = Original;
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    single.c_cc[VMIN] = 1;
    single.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSADRAIN, &single);
  }
}

void give_keys_back() {
  if (HasKeys && may_change_terminal()) {
    tcsetattr(STDIN_FILENO, TCSADRAIN, &Original);
  }
  HasKeys = false;
}

void open_watch() {
  take_keys();
  start_redrawing(measure_screen(true));
}

void close_watch() {
  end_redrawing(measure_screen(true));
  give_keys_back();
}

// Comes back when the shell continues the program.
void stop_here() {
  IsToStop = 0;
  close_watch();
  install(SIGTSTP, SIG_DFL);
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTSTP);
  std::raise(SIGTSTP);
  sigprocmask(SIG_UNBLOCK, &stop, nullptr);
  install(SIGTSTP, note_signal);
  open_watch();
}

bool is_quit_key_waiting() {
  char key = 0;
  constexpr char quit_key = 'q';
  return read(STDIN_FILENO, &key, sizeof(key)) == sizeof(key) && key == quit_key;
}

// Waits with the signals let through. Returns whether time is up.
bool wait_for_key_or_signal(int milliseconds, const sigset_t &during) {
  constexpr int milliseconds_per_second = 1000;
  constexpr long nanoseconds_per_millisecond = 1'000'000;
  const timespec limit{milliseconds / milliseconds_per_second,
                       milliseconds % milliseconds_per_second * nanoseconds_per_millisecond};
  pollfd keys{HasKeys ? STDIN_FILENO : -1, POLLIN, 0};
  const int ready = ppoll(&keys, 1, &limit, &during);
  if (ready > 0 && (keys.revents & POLLIN) == 0) {
    IsRunning = 0; // the terminal is gone
  } else if (ready > 0 && is_quit_key_waiting()) {
    IsRunning = 0;
  }
  return ready == 0;
}

} // namespace

void begin_watching() {
  for (const int signal_number : handled) {
    install(signal_number, note_signal);
  }
  open_watch();
}

void end_watching() { close_watch(); }

bool is_watching() { return IsRunning == 1; }

watch_event wait_for_watch_event(int milliseconds) {
  const sigset_t ours = handled_signals();
  sigset_t before;
  sigprocmask(SIG_BLOCK, &ours, &before);
  bool is_time_up = false;
  if (IsRunning == 1 && IsToStop == 0 && IsResized == 0) {
    is_time_up = wait_for_key_or_signal(milliseconds, before);
  }
  const bool is_changed = IsToStop == 1 || IsResized == 1;
  IsResized = 0;
  if (IsToStop == 1) {
    stop_here();
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  if (IsRunning == 0) {
    return watch_event::end;
  }
  return is_time_up || !is_changed ? watch_event::time_is_up : watch_event::redraw;
}

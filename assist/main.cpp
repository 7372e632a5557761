#include "assist/interface_watch.h"
#include "assist/notification_loop.h"
#include "assist/notification_socket.h"
#include "assist/options.h"
#include "assist/routing_socket.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int wrong_command_line = 2;

// Started with standard error closed, the first socket would take its number and be written the log to.
void occupy_standard_descriptors() {
  int opened = 0;
  while (opened >= 0 && opened <= STDERR_FILENO) {
    opened = open("/dev/null", O_RDWR);
  }
  if (opened >= 0) {
    close(opened);
  }
}

int assist(const assist_options &options) {
  const int stop_signals = open_stop_signals();
  const int routing = stop_signals < 0 ? -1 : open_routing_socket();
  const int notifications = routing < 0 ? -1 : open_notification_socket();
  if (notifications < 0) {
    return EXIT_FAILURE;
  }
  start_watch(options, routing);
  const int status = run_until_stopped(stop_signals, notifications);
  stop_watch();
  close(notifications);
  close(routing);
  close(stop_signals);
  return status;
}

} // namespace

int main(int argc, char **argv) {
  occupy_standard_descriptors();
  std::signal(SIGPIPE, SIG_IGN); // a log reader that goes away must not take the memberships with it
  assist_options options;
  switch (read_command_line(argc, argv, options)) {
  case command::show_help:
    return show_help();
  case command::show_version:
    return show_version();
  case command::refuse:
    return wrong_command_line;
  case command::run:
    return assist(options);
  }
}

#include "assist/heard_table.h"
#include "assist/interface_watch.h"
#include "assist/mld_socket.h"
#include "assist/notification_loop.h"
#include "assist/notification_socket.h"
#include "assist/options.h"
#include "assist/routing_socket.h"
#include "core/standard_streams.h"

#include <cstdlib>
#include <unistd.h>

namespace {

constexpr int wrong_command_line = 2;

int assist(const assist_options &options) {
  const int stop_signals = open_stop_signals();
  const int routing = stop_signals < 0 ? -1 : open_routing_socket();
  const int notifications = routing < 0 ? -1 : open_notification_socket();
  const int mld = notifications < 0 ? -1 : open_mld_socket();
  if (mld < 0) {
    return EXIT_FAILURE;
  }
  open_heard_table();
  start_watch(options, routing, mld);
  const int status = run_until_stopped({stop_signals, notifications, mld});
  stop_watch();
  close(mld);
  close(notifications);
  close(routing);
  close(stop_signals);
  return status;
}

} // namespace

int main(int argc, char **argv) {
  protect_standard_streams();
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

#include "core/standard_streams.h"
#include "run/loop.h"
#include "run/network_choice.h"
#include "run/options.h"

namespace {

constexpr int wrong_command_line = 2;

} // namespace

int main(int argc, char **argv) {
  protect_standard_streams();
  run_options options;
  switch (read_command_line(argc, argv, options)) {
  case command::show_help:
    return show_help();
  case command::show_version:
    return show_version();
  case command::refuse:
    return wrong_command_line;
  case command::explain:
    return explain_networks(options);
  case command::run:
    return run_supervisor(options);
  }
}

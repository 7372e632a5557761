#include "status/options.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>

const char status_usage[] = "Usage: tarnwick-status [-o | -w [seconds] | -j] [-p pid]\n"
                            "Shows what tarnwick is doing: interfaces, groups and their streams.\n"
                            "\n"
                            "-o, --once             Show it once (the default)\n"
                            "-w, --watch [seconds]  Show it again and again, every 2 seconds by default\n"
                            "-j, --json             Show it once as JSON, for programs\n"
                            "-p, --pid pid          Process of the daemon, if several run\n"
                            "-h, --help             Show this text\n"
                            "-V, --version          Show the version\n";

namespace {

constexpr char option_letters[] = "ow::jp:hV";
constexpr option long_options[] = {{"once", no_argument, nullptr, 'o'},
                                   {"watch", optional_argument, nullptr, 'w'},
                                   {"json", no_argument, nullptr, 'j'},
                                   {"pid", required_argument, nullptr, 'p'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};

// Returns -1 for anything but a whole number from 1 to `largest`.
int parse_number(const char *written, int largest) {
  constexpr int decimal = 10;
  char *end = nullptr;
  errno = 0;
  const long number = std::strtol(written, &end, decimal);
  if (errno != 0 || end == written || *end != '\0' || number < 1 || number > largest) {
    return -1;
  }
  return static_cast<int>(number);
}

bool set_watch(status_options &options, const char *seconds) {
  options.mode = status_mode::watch;
  if (seconds == nullptr) {
    return true;
  }
  options.watch_seconds = parse_number(seconds, LONGEST_WATCH_SECONDS);
  if (options.watch_seconds == -1) {
    std::fprintf(stderr, "tarnwick-status: --watch takes whole seconds from 1 to %d, not '%s'\n", LONGEST_WATCH_SECONDS,
                 seconds);
    return false;
  }
  return true;
}

bool set_pid(status_options &options, const char *pid) {
  options.daemon = parse_number(pid, INT_MAX);
  if (options.daemon == -1) {
    std::fprintf(stderr, "tarnwick-status: --pid takes the number of a process, not '%s'\n", pid);
    return false;
  }
  return true;
}

// "--watch 5" as well as "--watch=5": an argument that is not an option belongs to it.
const char *watch_argument(int argc, char **argv) {
  if (optarg == nullptr && optind < argc && argv[optind][0] != '-') {
    return argv[optind++];
  }
  return optarg;
}

bool apply_option(status_options &options, int letter, int argc, char **argv) {
  switch (letter) {
  case 'o':
    options.mode = status_mode::once;
    return true;
  case 'w':
    return set_watch(options, watch_argument(argc, argv));
  case 'j':
    options.mode = status_mode::json;
    return true;
  case 'p':
    return set_pid(options, optarg);
  case 'h':
    options.mode = status_mode::help;
    return true;
  case 'V':
    options.mode = status_mode::version;
    return true;
  default:
    std::fputs("Try 'tarnwick-status --help'.\n", stderr);
    return false;
  }
}

} // namespace

bool parse_status_options(status_options &options, int argc, char **argv) {
  options = status_options{status_mode::once, DEFAULT_WATCH_SECONDS, 0};
  for (int letter = getopt_long(argc, argv, option_letters, long_options, nullptr); letter != -1;
       letter = getopt_long(argc, argv, option_letters, long_options, nullptr)) {
    if (!apply_option(options, letter, argc, argv)) {
      return false;
    }
    if (options.mode == status_mode::help || options.mode == status_mode::version) {
      return true;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "tarnwick-status: '%s' is not an option\nTry 'tarnwick-status --help'.\n", argv[optind]);
    return false;
  }
  return true;
}

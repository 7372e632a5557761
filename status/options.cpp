#include "status/options.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

const char status_usage[] = "Usage: tarnwick-status [-o | -w [seconds] | -c [group[,source]] | -P] [-j] [-p pid]\n"
                            "Shows what tarnwick is doing: interfaces, groups and their streams.\n"
                            "\n"
                            "-o, --once             Show it once (the default)\n"
                            "-w, --watch [seconds]  Show it again and again, every 2 seconds by default\n"
                            "-c, --check [group[,source]]\n"
                            "                       Follow a stream's path and say where it stops\n"
                            "-W, --wait             With --check: repeat until the verdict changes\n"
                            "-j, --json             As JSON, for programs; not with --watch\n"
                            "-P, --prometheus[=file]\n"
                            "                       As metrics, to a file that is replaced as a whole\n"
                            "-p, --pid pid          Process of the daemon, if several run\n"
                            "-h, --help             Show this text\n"
                            "-V, --version          Show the version\n";

namespace {

constexpr char option_letters[] = "ow::c::WjP::p:hV";
constexpr option long_options[] = {
    {"once", no_argument, nullptr, 'o'},        {"watch", optional_argument, nullptr, 'w'},
    {"check", optional_argument, nullptr, 'c'}, {"wait", no_argument, nullptr, 'W'},
    {"json", no_argument, nullptr, 'j'},        {"prometheus", optional_argument, nullptr, 'P'},
    {"pid", required_argument, nullptr, 'p'},   {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},     {nullptr, 0, nullptr, 0}};

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

// Brings an address into the form in which the other tables hold it. Returns false for what is not one.
bool set_address(group_text &address, const char *written) {
  in6_addr parsed;
  return inet_pton(AF_INET6, written, &parsed) == 1 &&
         inet_ntop(AF_INET6, &parsed, address.data(), INET6_ADDRSTRLEN) != nullptr;
}

bool set_group_and_source(status_options &options, const char *written) {
  group_text group{};
  const char *comma = std::strchr(written, ',');
  const std::size_t length = comma != nullptr ? static_cast<std::size_t>(comma - written) : std::strlen(written);
  if (length >= group.size()) {
    return false;
  }
  std::memcpy(group.data(), written, length);
  return set_address(options.group, group.data()) && (comma == nullptr || set_address(options.source, comma + 1));
}

bool set_check(status_options &options, const char *group_and_source) {
  options.mode = status_mode::check;
  if (group_and_source == nullptr || set_group_and_source(options, group_and_source)) {
    return true;
  }
  std::fprintf(stderr, "tarnwick-status: --check takes an IPv6 group, or group,source, not '%s'\n", group_and_source);
  return false;
}

// "--watch 5" as well as "--watch=5", and the same for --check: an argument that is not an option belongs to it.
const char *own_or_next_argument(int argc, char **argv) {
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
    return set_watch(options, own_or_next_argument(argc, argv));
  case 'c':
    return set_check(options, own_or_next_argument(argc, argv));
  case 'W':
    options.waits = true;
    return true;
  case 'j':
    options.is_json = true;
    return true;
  case 'P':
    options.mode = status_mode::prometheus;
    options.metrics_file = optarg;
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
  options = status_options{};
  options.mode = status_mode::once;
  options.watch_seconds = DEFAULT_WATCH_SECONDS;
  for (int letter = getopt_long(argc, argv, option_letters, long_options, nullptr); letter != -1;
       letter = getopt_long(argc, argv, option_letters, long_options, nullptr)) {
    if (!apply_option(options, letter, argc, argv)) {
      return false;
    }
    if (options.mode == status_mode::help || options.mode == status_mode::version) {
      return true;
    }
  }
  if (options.waits && options.mode != status_mode::check) {
    std::fputs("tarnwick-status: --wait needs --check\n", stderr);
    return false;
  }
  if (options.is_json && (options.mode == status_mode::watch || options.mode == status_mode::prometheus)) {
    std::fputs("tarnwick-status: --json does not go with --watch or --prometheus\n", stderr);
    return false;
  }
  if (optind < argc) {
    std::fprintf(stderr, "tarnwick-status: '%s' is not an option\nTry 'tarnwick-status --help'.\n", argv[optind]);
    return false;
  }
  return true;
}

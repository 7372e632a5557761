#include "run/options.h"

#include "run/report.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <span>
#include <string_view>

namespace {

constexpr char option_letters[] = "+u:d:h";
constexpr std::uint64_t usual_log_file_bytes = 1024UL * 1024;
constexpr std::uint64_t least_log_file_bytes = 4096;

// Options without a letter; their numbers lie beyond every letter.
enum long_only {
  version_option = 256,
  network_option,
  upstream_link_option,
  log_option,
  log_file_option,
  log_file_size_option,
  nvram_option,
  runtime_folder_option,
  preload_option,
  no_assist_option,
  assist_options_option,
  explain_option
};

constexpr option long_options[] = {{"upstream", required_argument, nullptr, 'u'},
                                   {"downstream", required_argument, nullptr, 'd'},
                                   {"network", required_argument, nullptr, network_option},
                                   {"upstream-link", required_argument, nullptr, upstream_link_option},
                                   {"log", required_argument, nullptr, log_option},
                                   {"log-file", required_argument, nullptr, log_file_option},
                                   {"log-file-size", required_argument, nullptr, log_file_size_option},
                                   {"nvram", required_argument, nullptr, nvram_option},
                                   {"runtime-folder", required_argument, nullptr, runtime_folder_option},
                                   {"preload", required_argument, nullptr, preload_option},
                                   {"no-assist", no_argument, nullptr, no_assist_option},
                                   {"assist-options", required_argument, nullptr, assist_options_option},
                                   {"explain", no_argument, nullptr, explain_option},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, version_option},
                                   {nullptr, 0, nullptr, 0}};

constexpr char help_text[] =
    "Usage: tarnwick-run -u <upstream> -d <downstream>[,<downstream>...] [options] [-- options of tarnwick]\n"
    "Runs tarnwick and its companion and keeps them running. Stays in the foreground; ends on SIGTERM and SIGINT and\n"
    "leaves nothing behind. SIGHUP starts tarnwick anew.\n"
    "\n"
    "  -u, --upstream <name>          interface towards the streams' source\n"
    "  -d, --downstream <name,...>    interfaces towards the listeners, at most 8; may be repeated\n"
    "      --network=<mode>           host: in the host's own network (default)\n"
    "                                 private: in a network namespace with links to these interfaces\n"
    "      --upstream-link=<kind>     private network: macvlan (default), or ipvlan, which keeps the MAC address\n"
    "      --log=<which>              which lines of tarnwick are passed on: all, info (default), error, none\n"
    "      --log-file=<file>          also write the log there, and keep one predecessor\n"
    "      --log-file-size=<bytes>    at which size the file is changed; default 1048576\n"
    "      --nvram=<file>             settings of tarnwick; without it a file with the LAN's MAC address is written\n"
    "      --runtime-folder=<folder>  default: $RUNTIME_DIRECTORY, or /run/tarnwick\n"
    "      --preload=<file>           library that flushes tarnwick's log and keeps its query socket; empty: none\n"
    "      --no-assist                run tarnwick without its companion\n"
    "      --assist-options=<text>    further options of the companion, separated by blanks\n"
    "      --explain                  say which network mode would work here and why, and end\n"
    "  -h, --help                     show this text\n"
    "      --version                  show the version\n"
    "\n"
    "Interfaces that are not there yet are waited for. Needs CAP_NET_ADMIN and CAP_NET_RAW, for a private network\n"
    "CAP_SYS_ADMIN, too.\n";

// Says what is wrong, if something is.
bool accept(bool is_right, const fault_text &wrong) {
  if (!is_right) {
    say_error("%s", wrong.data());
  }
  return is_right;
}

bool read_upstream(const char *name, run_options &options) {
  fault_text wrong;
  return accept(choose_upstream(name, options.upstream, wrong), wrong);
}

bool read_downstreams(const char *list, run_options &options) {
  fault_text wrong;
  return accept(choose_downstreams(list, options.downstreams, options.downstream_count, wrong), wrong);
}

// Sets `chosen` to the value whose word is `text`; `words` stand in the order of the values.
template <typename choice, std::size_t count>
bool read_choice(const char *option_name, std::string_view text, const std::array<const char *, count> &words,
                 choice &chosen) {
  for (std::size_t i = 0; i < count; ++i) {
    if (text == words[i]) {
      chosen = static_cast<choice>(i);
      return true;
    }
  }
  say_error("--%s cannot be \"%.*s\"; --help shows the usage", option_name, static_cast<int>(text.size()), text.data());
  return false;
}

constexpr std::array network_words{"host", "private"};
constexpr std::array upstream_link_words{"macvlan", "ipvlan"};
constexpr std::array log_words{"all", "info", "error", "none"};

bool read_size(std::string_view text, std::uint64_t &size) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), size);
  if (failure != std::errc{} || end != text.data() + text.size() || size < least_log_file_bytes) {
    say_error("--log-file-size cannot be \"%s\": a number of bytes, at least %d", text.data(),
              static_cast<int>(least_log_file_bytes));
    return false;
  }
  return true;
}

bool is_complete(const run_options &options) {
  fault_text wrong;
  const auto downstreams = std::span{options.downstreams}.first(options.downstream_count);
  return accept(is_choice_complete(options.upstream, downstreams, wrong), wrong);
}

// Options that take one value and cannot refuse it.
const char **text_option(int letter, run_options &options) {
  switch (letter) {
  case log_file_option:
    return &options.log_file;
  case nvram_option:
    return &options.nvram_file;
  case runtime_folder_option:
    return &options.runtime_folder;
  case preload_option:
    return &options.flush_library;
  case assist_options_option:
    return &options.companion_options;
  default:
    return nullptr;
  }
}

bool read_option(int letter, const char *argument, run_options &options) {
  switch (letter) {
  case 'u':
    return read_upstream(argument, options);
  case 'd':
    return read_downstreams(argument, options);
  case network_option:
    return read_choice("network", argument, network_words, options.network);
  case upstream_link_option:
    return read_choice("upstream-link", argument, upstream_link_words, options.upstream_link);
  case log_option:
    return read_choice("log", argument, log_words, options.log);
  case log_file_size_option:
    return read_size(argument, options.log_file_bytes);
  case no_assist_option:
    options.has_companion = false;
    return true;
  default:
    *text_option(letter, options) = argument;
    return true;
  }
}

// Whether "-b" is among the daemon's options, alone or in a group such as "-vb". Letters with a value end a group.
bool goes_into_background(int argc, char **argv, int first) {
  constexpr std::string_view letters_with_value = "udiqm";
  for (int i = first; i < argc; ++i) {
    std::string_view letters = argv[i];
    if (!letters.starts_with('-')) {
      continue;
    }
    const std::size_t value = letters.find_first_of(letters_with_value);
    if (letters.find('b') < value) {
      return true;
    }
    i += value + 1 == letters.size() ? 1 : 0; // the value is the next word
  }
  return false;
}

// What stands behind "--" is the daemon's; anything else that is left over is a mistake.
bool take_daemon_options(int argc, char **argv, run_options &options) {
  if (optind < argc && std::strcmp(argv[optind - 1], "--") != 0) {
    say_error("unexpected argument \"%s\"; --help shows the usage", argv[optind]);
    return false;
  }
  if (goes_into_background(argc, argv, optind)) {
    say_error("option -b does not go with tarnwick-run: tarnwick has to stay in the foreground");
    return false;
  }
  options.daemon_options = argv + optind;
  options.daemon_option_count = static_cast<std::size_t>(argc - optind);
  return true;
}

// The text, or status 1 when standard output did not take it (a full disk, a closed pipe).
int show(const char *text) {
  const bool is_shown = std::fputs(text, stdout) >= 0 && std::fflush(stdout) == 0;
  return is_shown ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

command read_command_line(int argc, char **argv, run_options &options) {
  options = {};
  options.log = log_choice::info;
  options.log_file_bytes = usual_log_file_bytes;
  options.has_companion = true;
  optind = 0; // start anew, also within a group of letters
  opterr = 0;
  command chosen = command::run;
  for (;;) {
    const int current = std::max(optind, 1);
    const int letter = getopt_long(argc, argv, option_letters, long_options, nullptr);
    switch (letter) {
    case -1:
      return take_daemon_options(argc, argv, options) && is_complete(options) ? chosen : command::refuse;
    case 'h':
      return command::show_help;
    case version_option:
      return command::show_version;
    case explain_option:
      chosen = command::explain;
      break;
    case '?':
      say_error("unknown option, or option without its argument: \"%s\"; --help shows the usage", argv[current]);
      return command::refuse;
    default:
      if (!read_option(letter, optarg, options)) {
        return command::refuse;
      }
    }
  }
}

int show_help() { return show(help_text); }

int show_version() { return show("tarnwick-run " TARNWICK_VERSION "\n"); }

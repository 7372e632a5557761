#include "assist/options.h"

#include "assist/report.h"
#include "core/text_part.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <span>
#include <string_view>

namespace {

constexpr char option_letters[] = "+u:d:h";
constexpr int version_option = 256; // beyond every letter
constexpr int without_option = 257;

constexpr std::array<option, 6> long_options{{{"upstream", required_argument, nullptr, 'u'},
                                              {"downstream", required_argument, nullptr, 'd'},
                                              {"without", required_argument, nullptr, without_option},
                                              {"help", no_argument, nullptr, 'h'},
                                              {"version", no_argument, nullptr, version_option},
                                              {nullptr, 0, nullptr, 0}}};

constexpr char help_text[] =
    "Usage: tarnwick-assist -u <upstream> -d <downstream>[,<downstream>...] [--without=<remedy>[,<remedy>...]]\n"
    "Runs beside tarnwick on a mainline Linux kernel: brings the LAN's MLDv2 reports to tarnwick, lets the kernel\n"
    "forward its any-source streams, and heals what would darken viewers. Stays in the foreground; ends on SIGTERM and "
    "SIGINT and takes away what it "
    "added.\n"
    "\n"
    "  -u, --upstream <name>        interface towards the streams' source, as given to tarnwick\n"
    "  -d, --downstream <name,...>  interfaces towards the listeners, as given to tarnwick; may be repeated\n"
    "      --without=<remedy,...>   leave out remedies (below); may be repeated\n"
    "  -h, --help                   show this text\n"
    "      --version                show the version\n"
    "\n"
    "Remedies, all on unless left out:\n"
    "  ask-after-leave   ask who still listens 0.5 s after a host's leave\n"
    "  ask-after-end     ask again when tarnwick has ended a group\n"
    "  general-queries   ask each LAN every 125 s, unless another querier does\n"
    "  bridge-refresh    keep any-source streams flowing while tarnwick makes their group anew\n"
    "  add-outputs       let a stream into a second LAN that asks for it\n"
    "  remove-outputs    keep a stream out of a LAN that lost its group while another LAN watches\n"
    "  clear-left-groups keep a stream out of every LAN when all have left its group\n"
    "  shield-static     keep changes from the static entry, which any-source streams need\n"
    "  widen-upstream    keep an any-source group whole upstream when a host asks for one source of it\n"
    "\n"
    "Interfaces that are not there yet are waited for. Needs CAP_NET_ADMIN and CAP_NET_RAW.\n";

// Says what is wrong, if something is.
bool accept(bool is_right, const fault_text &wrong) {
  if (!is_right) {
    say("%s", wrong.data());
  }
  return is_right;
}

bool read_upstream(const char *name, assist_options &options) {
  fault_text wrong;
  return accept(choose_upstream(name, options.upstream, wrong), wrong);
}

bool read_downstreams(const char *list, assist_options &options) {
  fault_text wrong;
  return accept(choose_downstreams(list, options.downstreams, options.downstream_count, wrong), wrong);
}

bool read_without(std::string_view list, assist_options &options) {
  for (;;) {
    const std::size_t comma = list.find(',');
    const std::string_view name = first_part(list, comma);
    if (!switch_off(name, options.without)) {
      say("\"%.*s\" is not a remedy; --help lists them", static_cast<int>(name.size()), name.data());
      return false;
    }
    if (comma == std::string_view::npos) {
      return true;
    }
    list.remove_prefix(comma + 1);
  }
}

bool is_complete(const assist_options &options) {
  fault_text wrong;
  const auto downstreams = std::span{options.downstreams}.first(options.downstream_count);
  return accept(is_choice_complete(options.upstream, downstreams, wrong), wrong);
}

// The text, or status 1 when standard output did not take it (a full disk, a closed pipe).
int show(const char *text) {
  const bool is_shown = std::fputs(text, stdout) >= 0 && std::fflush(stdout) == 0;
  return is_shown ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

command read_command_line(int argc, char **argv, assist_options &options) {
  options = {};
  optind = 0; // start anew, also within a group of letters
  opterr = 0;
  for (;;) {
    const int current = std::max(optind, 1);
    const int letter = getopt_long(argc, argv, option_letters, long_options.data(), nullptr);
    switch (letter) {
    case -1:
      if (optind < argc) {
        say("unexpected argument \"%s\"; --help shows the usage", argv[optind]);
        return command::refuse;
      }
      return is_complete(options) ? command::run : command::refuse;
    case 'u':
      if (!read_upstream(optarg, options)) {
        return command::refuse;
      }
      break;
    case 'd':
      if (!read_downstreams(optarg, options)) {
        return command::refuse;
      }
      break;
    case without_option:
      if (!read_without(optarg, options)) {
        return command::refuse;
      }
      break;
    case 'h':
      return command::show_help;
    case version_option:
      return command::show_version;
    default:
      say("unknown option, or option without its argument: \"%s\"; --help shows the usage", argv[current]);
      return command::refuse;
    }
  }
}

int show_help() { return show(help_text); }

int show_version() { return show("tarnwick-assist " TARNWICK_VERSION "\n"); }

#include "core/options.h"

#include "core/log.h"
#include "core/settings.h"
#include "platform/nvram.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

#define PARSE_HERE MAIN_STEP_OF("parse_arguments")

std::int32_t InterfaceNameCounter = 0;

namespace {

constexpr char option_letters[] = "vu:d:i:q:m:b";
constexpr char mode_6to6[] = "6to6";
constexpr std::int32_t verbose_debug_level = 10;
constexpr std::int32_t last_name_counter = 9; // a list ends with the name that takes the counter here or beyond

bool is_mode_6to6(const char *text) { return text != nullptr && std::strcmp(text, mode_6to6) == 0; }

// Splits at every comma (empty pieces count) into the option's own table. Names beyond the table are counted, not kept.
std::int32_t append_names(name_pointers &table, char *comma_separated) {
  char *piece = comma_separated;
  while (piece != nullptr) {
    char *comma = std::strchr(piece, ',');
    if (comma != nullptr) {
      *comma = '\0';
    }
    if (InterfaceNameCounter < INTERFACE_NAME_SLOTS) {
      table[static_cast<std::size_t>(InterfaceNameCounter)] = piece;
    }
    ++InterfaceNameCounter;
    if (comma == nullptr || InterfaceNameCounter >= last_name_counter) {
      break;
    }
    piece = comma + 1;
  }
  return InterfaceNameCounter;
}

int parse_option(int letter, char *argument) {
  switch (letter) {
  case 'v':
    ProxyDebugLevel = verbose_debug_level;
    return 0;
  case 'b':
    ProxyIsADaemon = 1;
    return 0;
  case 'u':
    UpstreamInterfacesName = argument;
    return 0;
  case 'd':
    return set_downstream_names(argument);
  case 'i':
    return set_ignore_names(argument);
  case 'q':
    return set_querier(argument);
  case 'm':
    return set_proxy_mode(argument);
  default:
    print_usage();
    return -1;
  }
}

} // namespace

int parse_arguments(int argc, char **argv) {
  for (int letter = getopt(argc, argv, option_letters); letter != -1; letter = getopt(argc, argv, option_letters)) {
    if (parse_option(letter, optarg) == -1) {
      return -1;
    }
  }
  if (UpstreamInterfacesName == nullptr) {
    print_usage();
    return -1;
  }
  return 0;
}

int set_proxy_mode(const char *text) {
  if (text == nullptr) {
    log_error(PARSE_HERE, "please set proxy mode to [4to4|4to6|6to6]!");
    return -1;
  }
  if (!is_mode_6to6(text) && !is_mode_6to6(nvram_get("tarnwick_mode"))) {
    print_usage();
    return -1;
  }
  ProxyMode = PROXY_MODE_6TO6;
  return 0;
}

int set_querier(const char *text) {
  if (text == nullptr) {
    log_error(PARSE_HERE, "please set the querier enabled or disabled !!!");
    return -1;
  }
  ForceNonQuerier = std::strcmp(text, "1") == 0 ? 1 : 0;
  return 0;
}

int set_downstream_names(char *comma_separated) {
  if (comma_separated == nullptr) {
    log_error(PARSE_HERE, "please set the downstream interface name !!!");
    return -1;
  }
  DownstreamInterfacesNum = append_names(DownstreamInterfacesName, comma_separated);
  return 0;
}

int set_ignore_names(char *comma_separated) {
  if (comma_separated == nullptr) {
    log_error(PARSE_HERE, "please set the ignore interface name !!!");
    return -1;
  }
  IgnoreInterfacesNum = append_names(IgnoreInterfacesName, comma_separated);
  return 0;
}

// The first line's "-d <ignore interface name>" disagrees with the "-d" line below it; kept for compatibility.
void print_usage() {
  std::puts("Usage: tarnwick [-v] [-b] -u <interface name> -d <ignore interface name> -q <non-querier> "
            "-m <4to4/4to6/6to6 mode>.");
  std::puts("-v                   \t\t: Verbose mode - Print debug messages");
  std::puts("-b                   \t\t: Daemon mode - Run in background");
  std::puts("-u <interface name>  \t\t: Name of the interface on which the router is present");
  std::puts("-d <interface name>  \t\t: Name of the interface on which the proxy is present");
  std::puts("-q <non-querier>  \t\t: \"1\"--force to be non-querier, otherwise \"0\".");
  std::puts("-m <4to4/4to6/6to6 mode>  \t: Specify IGMP/MLD mode for Lan to Wan");
  std::puts("Example: tarnwick -v -u br1 -d br0\n");
}

// Command line: "-u <upstream> -d <downstream>[,<downstream>...] [options] [-- options of the daemon]".
#pragma once

#include "assist/interface_choice.h"

#include <array>
#include <cstddef>
#include <cstdint>

// The daemon's list of downstream names has 8 places (core/settings.h).
inline constexpr std::size_t MOST_DOWNSTREAMS = 8;

enum class network_mode { host, own };             // --network=host|private
enum class upstream_link_kind { macvlan, ipvlan }; // --upstream-link=
enum class log_choice { all, info, error, none };  // --log=

struct run_options {
  interface_name upstream; // empty = not given
  std::array<interface_name, MOST_DOWNSTREAMS> downstreams;
  std::size_t downstream_count;
  network_mode network;
  upstream_link_kind upstream_link;
  log_choice log;
  const char *log_file;          // null = none
  std::uint64_t log_file_bytes;  // size at which the file becomes its own predecessor
  const char *nvram_file;        // null = written at each start of the daemon
  const char *runtime_folder;    // null = $RUNTIME_DIRECTORY, or /run/tarnwick
  const char *flush_library;     // null = beside the programs or in their lib folder; "" = do not preload
  bool has_companion;            // --no-assist: not beside a kernel that does without
  const char *companion_options; // split at blanks; null = none
  char *const *daemon_options;   // behind "--"
  std::size_t daemon_option_count;
};

enum class command { run, explain, show_help, show_version, refuse };

// Reads the command line into `options`, which points into `argv`. On `refuse` it has said what is wrong. An interface
// need not exist (it is waited for), but its name must be one that the kernel would accept.
command read_command_line(int argc, char **argv, run_options &options);

// Print on standard output. Return the exit status: not 0 when the text could not be written.
int show_help();
int show_version();

// Command line: "-u <upstream> -d <downstream>[,<downstream>...] [--without=<remedy>[,<remedy>...]]", "-h",
// "--version".
#pragma once

#include "assist/interface_choice.h"
#include "assist/remedy.h"

#include <array>
#include <cstddef>

// The kernel routes between 32 interfaces (MAXMIFS in linux/mroute6.h), and one is the upstream.
inline constexpr std::size_t MOST_DOWNSTREAMS = 31;

struct assist_options {
  interface_name upstream; // empty = not given
  std::array<interface_name, MOST_DOWNSTREAMS> downstreams;
  std::size_t downstream_count;
  remedies_off without;
};

enum class command { run, show_help, show_version, refuse };

// Reads the command line into `options`. On `refuse` it has said what is wrong. An interface need not exist (it is
// waited for), but its name must be one that the kernel would accept.
command read_command_line(int argc, char **argv, assist_options &options);

// Print on standard output. Return the exit status: not 0 when the text could not be written.
int show_help();
int show_version();

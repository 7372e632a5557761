// Command line: "-u <upstream> -d <downstream>[,<downstream>...]", "-h", "--version".
#pragma once

#include <array>
#include <cstddef>
#include <linux/mroute6.h>
#include <net/if.h>

using interface_name = std::array<char, IFNAMSIZ>;

struct assist_options {
  interface_name upstream;                             // empty = not given
  std::array<interface_name, MAXMIFS - 1> downstreams; // the kernel routes between 32 interfaces, one is the upstream
  std::size_t downstream_count;
};

enum class command { run, show_help, show_version, refuse };

// Reads the command line into `options`. On `refuse` it has said what is wrong. An interface need not exist (it is
// waited for), but its name must be one that the kernel would accept.
command read_command_line(int argc, char **argv, assist_options &options);

// Print on standard output. Return the exit status: not 0 when the text could not be written.
int show_help();
int show_version();

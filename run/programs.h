// The two programs that the supervisor runs: where they are, with which arguments and environment.
#pragma once

#include "run/options.h"

#include <span>
#include <sys/types.h>

// What a start is made of.
struct program_start {
  const run_options *options;
  interface_name upstream; // as the programs see them: inner names in a private network
  std::span<const interface_name> downstreams;
  int network_namespace; // -1 = the supervisor's own
  int standard_output;
  int standard_error;
};

// Finds the programs in the folder of the running one. False after it has said why not.
bool find_programs(const run_options &options);

// Return the process number, or -1 after they have said why not.
pid_t start_daemon(const program_start &start);
pid_t start_companion(const program_start &start);

// What tarnwick-run says of itself in its runtime folder (run/service_state.h).
#pragma once

#include "status/daemon_process.h"

struct supervisor_state {
  text doing;              // "" if it could not be read
  text failure;            // why its last failed start failed; "" if none did
  long failed_seconds_ago; // meaningless without `failure`
  bool is_host_pool_full;  // the daemon notes no further hosts
  int failures;            // since it was started
};

// Finds the folder by the lock that the supervisor holds there. The file must be the supervisor's own.
void read_supervisor_state(supervisor_state &state, const process_facts &supervisor);

// Of the whole file.
void parse_supervisor_state(supervisor_state &state, const char *file, long now_seconds);

// One round: find the daemon, ask it, join its answer with the kernel's tables, or say what went wrong.
#pragma once

#include "status/snapshot.h"

struct status_round {
  process_facts daemon; // found by the newest find_daemon
  rows_of<process_facts> daemons;
  daemon_state state;
  state_answer answer;                   // of the newest take_snapshot
  std::array<traffic_sample, 2> samples; // the older one serves for rates
  std::size_t newest;                    // index into `samples`
  pid_t sampled_daemon;                  // whose traffic the samples hold; 0: none yet
  snapshot joined;
};

// Finds the daemon (`wanted` 0) or looks at the one that was named. Returns false with the reason, one line or
// several, in `problem`.
bool find_daemon(status_round &round, text &problem, pid_t wanted);

// Asks the daemon and joins a snapshot with rates since the last sample. Returns false with the reason.
bool take_snapshot(status_round &round, text &problem);

// Reads the kernel's tables as the older sample. Returns false with the reason.
bool take_sample(status_round &round, text &problem);

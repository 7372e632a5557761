// Decides what to do next: wait, start daemon and companion, stop them, start them again.
#pragma once

#include "run/options.h"
#include "run/pacing.h"
#include "run/private_network.h"
#include "run/program_pair.h"
#include "run/served_interfaces.h"

#include <cstdint>
#include <sys/types.h>

enum class supervisor_phase {
  waiting,   // nothing runs: an interface is missing, or a pause has not passed
  preparing, // nothing runs: the private network's addresses are not there yet
  starting,  // both programs run, streams cannot flow yet
  serving,   // streams can flow
  stopping,  // the companion, then the daemon have been asked to end
  ended      // nothing runs and nothing is left
};

struct supervisor {
  const run_options *options;
  supervisor_phase phase;
  served_interfaces served;
  private_network network;
  pacing pace;
  std::int64_t phase_since_ms;
  std::int64_t can_start_since_ms; // NEVER_MS = cannot
  bool has_been_started;
  bool is_end_wanted;
};

extern supervisor Supervisor;

// Takes over what a killed supervisor has left. False after it has said why it cannot begin.
bool begin_supervision(const run_options &options);

// Does what is due. Returns when to be called again at the latest, on the monotonic clock; NEVER_MS = at an event.
std::int64_t advance_supervision(std::int64_t now_ms);

// A child has ended (SIGCHLD). `wait_status` is waitpid()'s.
void note_end_of_child(pid_t pid, int wait_status, std::int64_t now_ms);

// SIGTERM or SIGINT; SIGHUP.
void end_supervision(std::int64_t now_ms);
void restart_daemon(std::int64_t now_ms);

// Removes what was made. Nothing runs any more.
void finish_supervision();

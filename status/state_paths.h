// Where the daemon's state files are: in its own /tmp, which may be another folder than the caller's.
#pragma once

#include <array>
#include <sys/types.h>

using state_path = std::array<char, 64>;

struct state_paths {
  state_path folder;
  state_path host_in_group; // written first, not read
  state_path join_state;
  state_path type_messages; // closed last
};

// Plain paths under /tmp if the daemon's /tmp is the caller's, or may not be looked at; otherwise through the root
// folder that /proc shows of the process, which needs the right to look into it (ptrace(2), PTRACE_MODE_READ).
void find_state_paths(state_paths &paths, pid_t daemon);

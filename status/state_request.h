// Asking the daemon for its state and waiting until the answer is whole.
#pragma once

#include "status/daemon_process.h"
#include "status/state_files.h"
#include "status/state_paths.h"

// How long the daemon may take. It answers at once, or after its next tick, at most a second later.
inline constexpr int ANSWER_DEADLINE_MILLISECONDS = 3000;

enum class state_answer {
  fresh,
  cannot_watch,  // no notification about the folder; errno says why
  cannot_signal, // errno says why: EPERM needs root, ESRCH means that the daemon ended meanwhile
  no_answer,     // the deadline passed
  unreadable,    // a file could not be read; errno says why
  planted        // something is in place of a file; the daemon was not asked. `planted_file` names it
};

struct daemon_state {
  rows_of<interface_counters> interfaces;
  rows_of<group_line> groups;
  state_paths paths{};
  const char *planted_file{}; // one of the paths
  bool is_link{};             // of root's or the daemon's own
};

// Looks where the files are and what is there, sends SIGUSR1, waits until the daemon has closed the file that it
// closes last, and reads both files into `state` (emptied first). Files that are not the daemon's own or older than the
// request are not read. A dump that somebody else asked for meanwhile is as good.
state_answer ask_for_state(daemon_state &state, const process_facts &daemon);

// Seconds since a state file of the daemon's user was written; -1 if there is none.
long seconds_since_written(const char *path, uid_t user);

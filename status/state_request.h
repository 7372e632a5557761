// Asking the daemon for its state and waiting until the answer is whole.
#pragma once

#include "status/daemon_process.h"
#include "status/state_files.h"

// How long the daemon may take. It answers at once, or after its next tick, at most a second later.
inline constexpr int ANSWER_DEADLINE_MILLISECONDS = 3000;

enum class state_answer {
  fresh,
  cannot_watch,  // no notification about /tmp; errno says why
  cannot_signal, // errno says why: EPERM needs root, ESRCH means that the daemon ended meanwhile
  no_answer,     // the deadline passed
  unreadable     // a file could not be read; errno says why
};

struct daemon_state {
  rows_of<interface_counters> interfaces;
  rows_of<group_line> groups;
};

// Sends SIGUSR1, waits until the daemon has closed the file that it closes last, and reads both files into `state`
// (emptied first). A dump that another program asked for meanwhile serves as well.
state_answer ask_for_state(daemon_state &state, pid_t daemon);

// Seconds since a state file was written; -1 if there is none.
long seconds_since_written(const char *path);

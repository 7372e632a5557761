// What a check looks at: the wanted stream, the programs, and what was read of them before.
#pragma once

#include "status/daemon_process.h"
#include "status/snapshot.h"

struct check_subject {
  group_text group;  // "" for no group: only what all streams need
  group_text source; // "" for any
  process_facts daemon;
  bool has_daemon;
  bool has_state;                  // the daemon answered, and `snapshot` holds what it said
  state_answer answer;             // how the daemon answered; `fresh` while it was not asked
  const struct snapshot *snapshot; // with rates over CHECK_SAMPLE_SECONDS
  text problem;                    // why there is no daemon, or no state; one line or several
};

inline constexpr int CHECK_SAMPLE_SECONDS = 1;

// Daemon and companion as running processes, with the pipes that they write to.
#pragma once

#include "run/end_reason.h"
#include "run/log_reader.h"
#include "run/pacing.h"
#include "run/programs.h"

#include <cstdint>
#include <sys/types.h>

inline constexpr std::int64_t NEVER_MS = INT64_MAX; // of the monotonic clock

struct supervised_program {
  pid_t pid; // 0 = does not run
  std::int64_t started_ms;
  std::int64_t kill_at_ms; // asked to end, killed at this time; NEVER_MS = not asked
};

struct program_pair {
  supervised_program daemon;
  supervised_program companion;
  log_reader daemon_log; // standard output and standard error
  log_reader companion_log;
  pacing companion_pace;
  bool is_daemon_killed; // it is not asked but killed when its turn comes
};

extern program_pair ProgramPair;

void clear_program_pair();

// Starts the daemon, and the companion if there is to be one. False after it has said why not; what was started then
// is to be ended by `ask_pair_to_end`.
bool start_pair(program_start &start, std::int64_t now_ms);

// Starts the companion anew if it should run, does not, and its pause has passed. `next_ms` is set to the end of the
// pause, if earlier.
void keep_companion(program_start &start, std::int64_t now_ms, std::int64_t &next_ms);

// From now on `is_pair_ended` ends the companion, then the daemon: by SIGTERM, and by SIGKILL if they do not follow
// within 1 and 2 s. With `is_daemon_killed` the daemon gets SIGKILL at once.
void ask_pair_to_end(bool is_daemon_killed);

// To be called until it returns true: both have ended, and all that they wrote is passed on. `next_ms` is set to the
// next deadline, if earlier.
bool is_pair_ended(std::int64_t now_ms, std::int64_t &next_ms);

// A child has ended. Returns whether it was the daemon and had not been asked to; `reason` then says why in plain
// words.
bool note_end_of_program(pid_t pid, int wait_status, const end_facts &start_facts, std::int64_t now_ms,
                         end_text &reason);

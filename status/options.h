// Command line of tarnwick-status.
#pragma once

#include "status/state_files.h"

#include <sys/types.h>

enum class status_mode { once, watch, check, prometheus, help, version };

struct status_options {
  status_mode mode;
  int watch_seconds;
  pid_t daemon;             // 0: look for it
  bool is_json;             // with once and check
  bool waits;               // with check: until the verdict changes
  group_text group;         // of the check, in the short form; "" for none
  group_text source;        // "" for any
  const char *metrics_file; // null: standard output
};

inline constexpr int DEFAULT_WATCH_SECONDS = 2;
inline constexpr int LONGEST_WATCH_SECONDS = 3600;

// Returns false after saying on standard error what is wrong.
bool parse_status_options(status_options &options, int argc, char **argv);

extern const char status_usage[];

// The daemon's one log-line format, on standard output, whatever the verbosity:
// level letter, module tag, function, line number, message. docs/log.md tells how to read it.
#pragma once

#include <cstdint>

// Where a line comes from. Helpers that log for their caller take the caller's site, so that a line names the step
// an operator looks for and not the helper.
struct log_site {
  const char *tag; // module, at most 4 characters: "main", "igmp", "mld"
  const char *function;
  int line;
};

#define MAIN_HERE (log_site{"main", __func__, __LINE__})
#define MLD_HERE (log_site{"mld", __func__, __LINE__})
#define IGMP_HERE (log_site{"igmp", __func__, __LINE__})

// For the steps of one long operation: their lines carry the operation's name.
#define MAIN_STEP_OF(operation) (log_site{"main", operation, __LINE__})
#define MLD_STEP_OF(operation) (log_site{"mld", operation, __LINE__})
#define IGMP_STEP_OF(operation) (log_site{"igmp", operation, __LINE__})

// Each writes one line; `format` is printf's and carries no newline of its own. Output is not flushed.
void log_error(log_site site, const char *format, ...) __attribute__((format(printf, 2, 3)));
void log_debug(log_site site, const char *format, ...) __attribute__((format(printf, 2, 3)));
void log_information(log_site site, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Prints without prefix when `ProxyDebugLevel` is at least `level`. Kept for debugging; nothing calls it.
void proxy_log(std::int32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

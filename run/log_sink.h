// Where lines go: the journal with "<N>" in front, standard error, or syslog(3); beside it a bounded file.
#pragma once

#include "run/options.h"

#include <cstdint>
#include <string_view>

// As in syslog.h.
enum class log_priority { error = 3, warning = 4, notice = 5, information = 6, debug = 7 };

enum class log_origin { supervisor, daemon, companion };

// Chooses the sink: the journal where JOURNAL_STREAM names standard error, syslog(3) where standard error is
// /dev/null, else standard error as it is. Returns false after it has said why the file cannot be had.
bool open_log_sink(const run_options &options);

// Writes one line without a newline of its own. What is not a printable ASCII character becomes a question mark. Does
// not wait for a reader that hangs, unless it is syslogd's.
void write_log_line(log_origin origin, log_priority priority, std::string_view line);

// The same for many lines at once: they are written with the next flush, or when there is no room left.
void append_log_line(log_origin origin, log_priority priority, std::string_view line);
void flush_log_lines();

// How many lines no sink took since the last call.
std::uint64_t take_lost_log_lines();

void close_log_sink();

// Where lines go: the journal or standard error with "<N>" in front, syslog(3), a bounded file.
#pragma once

#include "run/options.h"

#include <string_view>

// As in syslog.h.
enum class log_priority { error = 3, warning = 4, notice = 5, information = 6, debug = 7 };

enum class log_origin { supervisor, daemon, companion };

// Chooses the sink: the journal where JOURNAL_STREAM names standard error, standard error where that is a terminal or
// a pipe, syslog(3) where it leads nowhere. Returns false after it has said why the file cannot be had.
bool open_log_sink(const run_options &options);

// Writes one line without a newline of its own; never waits.
void write_log_line(log_origin origin, log_priority priority, std::string_view line);

void close_log_sink();

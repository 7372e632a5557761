#include "run/log_sink.h"

#include <cstdio>

bool open_log_sink(const run_options &) { return true; }

void write_log_line(log_origin, log_priority, std::string_view line) {
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

void close_log_sink() {}

#include "run/report.h"

#include "run/log_sink.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

using line_text = std::array<char, 512>;

void write_line(log_priority priority, const char *format, va_list &arguments) {
  line_text line;
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  const std::size_t shown = std::min(static_cast<std::size_t>(std::max(length, 0)), line.size() - 1);
  write_log_line(log_origin::supervisor, priority, {line.data(), shown});
}

} // namespace

void say(const char *format, ...) {
  const int reason = errno;
  va_list arguments;
  va_start(arguments, format);
  write_line(log_priority::information, format, arguments);
  va_end(arguments);
  errno = reason;
}

void say_error(const char *format, ...) {
  const int reason = errno;
  va_list arguments;
  va_start(arguments, format);
  write_line(log_priority::error, format, arguments);
  va_end(arguments);
  errno = reason;
}

void say_refused(int reason, const char *format, ...) {
  line_text line;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  say_error("%s: %s", line.data(), std::strerror(reason));
}

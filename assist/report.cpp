#include "assist/report.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t longest_line = 256;

using line_text = std::array<char, longest_line>;

} // namespace

void say(const char *format, ...) {
  const int reason = errno;
  line_text line;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "tarnwick-assist: %s\n", line.data());
  errno = reason;
}

void say_refused(int reason, const char *format, ...) {
  line_text line;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  say("%s: %s", line.data(), std::strerror(reason));
}

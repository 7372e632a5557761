#include "assist/report.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr std::size_t longest_line = 256;

using line_text = std::array<char, longest_line>;

} // namespace

void say(const char *format, ...) {
  const int reason = errno;
  line_text line;
  std::array<char, longest_line + 32> written;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  // By one request, since stderr would take 8 KiB of stack.
  const int length = std::snprintf(written.data(), written.size(), "tarnwick-assist: %s\n", line.data());
  (void)!write(STDERR_FILENO, written.data(), static_cast<std::size_t>(length));
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

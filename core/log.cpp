#include "core/log.h"

#include "core/settings.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

// A refresh of one group writes a dozen lines and more, so a line costs as little as it can: no printf, no lock. It
// goes to the stream in three calls, prefix, message and newline, so that what watches the stream sees them in turn.

namespace {

constexpr std::size_t tag_width = 4;
constexpr std::size_t function_width = 36;
constexpr std::size_t line_width = 4;
constexpr std::size_t longest_name = 64;   // of tag or function; what is longer is cut
constexpr std::size_t longest_number = 12; // "-2147483648" and its NUL
constexpr std::size_t usual_line = 512;    // longer lines are handed over in pieces

struct line_text {
  std::array<char, usual_line> characters;
  std::size_t length;
};

void hand_over(line_text &line) {
  fwrite_unlocked(line.characters.data(), 1, line.length, stdout);
  line.length = 0;
}

void append(line_text &line, const char *text, std::size_t length) {
  if (length > usual_line - line.length) {
    hand_over(line);
    if (length > usual_line) {
      fwrite_unlocked(text, 1, length, stdout);
      return;
    }
  }
  std::memcpy(&line.characters[line.length], text, length);
  line.length += length;
}

// A number, after zeros up to `width`.
template <typename integer> void append_number(line_text &line, integer number, int base, std::size_t width) {
  std::array<char, longest_number> digits;
  const std::to_chars_result result = std::to_chars(digits.data(), digits.data() + digits.size(), number, base);
  const auto length = static_cast<std::size_t>(result.ptr - digits.data());
  for (std::size_t i = length; i < width; ++i) {
    append(line, "0", 1);
  }
  append(line, digits.data(), length);
}

// Text, then blanks up to `width`. Returns where the next column begins.
template <std::size_t width> char *put_left(char *out, const char *text) {
  const std::size_t length = strnlen(text, longest_name);
  std::memset(out, ' ', width);
  std::memcpy(out, text, length);
  return out + std::max(length, width);
}

// A number, after blanks up to `width`.
template <std::size_t width> char *put_right(char *out, int number) {
  std::array<char, longest_number> digits;
  const std::to_chars_result result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  const auto length = static_cast<std::size_t>(result.ptr - digits.data());
  std::memset(out, ' ', width);
  out += width > length ? width - length : 0;
  std::memcpy(out, digits.data(), length);
  return out + length;
}

// "D:mld :mld_proxy_stop                      #  81: ". The line is empty before it, and longer than any prefix.
void put_prefix(line_text &line, char level, const log_site &site) {
  constexpr std::size_t marks = sizeof("D::#: ") - 1; // between the columns
  static_assert(2 * longest_name + longest_number + marks <= usual_line);
  char *out = line.characters.data();
  *out++ = level;
  *out++ = ':';
  out = put_left<tag_width>(out, site.tag);
  *out++ = ':';
  out = put_left<function_width>(out, site.function);
  *out++ = '#';
  out = put_right<line_width>(out, site.line);
  *out++ = ':';
  *out++ = ' ';
  line.length = static_cast<std::size_t>(out - line.characters.data());
}

// Writes the conversion that starts at `conversion` (its '%'). Returns what follows it, or null if it is not one of the
// few that the daemon's lines are made of.
const char *append_conversion(line_text &line, const char *conversion, va_list &arguments) {
  switch (conversion[1]) {
  case 's': {
    const char *text = va_arg(arguments, const char *);
    append(line, text, std::strlen(text));
    return conversion + 2;
  }
  case 'd':
    append_number(line, va_arg(arguments, int), 10, 0);
    return conversion + 2;
  case 'u':
    append_number(line, va_arg(arguments, unsigned int), 10, 0);
    return conversion + 2;
  default:
    break;
  }
  if (std::strncmp(conversion, "%02x", 4) == 0) {
    append_number(line, va_arg(arguments, unsigned int), 16, 2);
    return conversion + 4;
  }
  return nullptr;
}

void append_message(line_text &line, const char *format, va_list &arguments) {
  while (*format != '\0') {
    const char *conversion = strchrnul(format, '%');
    append(line, format, static_cast<std::size_t>(conversion - format));
    if (*conversion == '\0') {
      return;
    }
    format = append_conversion(line, conversion, arguments);
    if (format == nullptr) {
      hand_over(line);
      std::vprintf(conversion, arguments);
      return;
    }
  }
}

void log_line(char level, const log_site &site, const char *format, va_list &arguments) {
  line_text line;
  put_prefix(line, level, site);
  hand_over(line);
  append_message(line, format, arguments);
  hand_over(line);
  putchar_unlocked('\n');
}

} // namespace

void log_error(log_site site, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log_line('E', site, format, arguments);
  va_end(arguments);
}

void log_debug(log_site site, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log_line('D', site, format, arguments);
  va_end(arguments);
}

void log_information(log_site site, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log_line('I', site, format, arguments);
  va_end(arguments);
}

void proxy_log(std::int32_t level, const char *format, ...) {
  if (ProxyDebugLevel < level) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

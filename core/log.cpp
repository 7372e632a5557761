#include "core/log.h"

#include "core/settings.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

// A refresh of one group writes a dozen lines and more, so a line costs as little as it can: no printf, no lock.

namespace {

constexpr std::size_t tag_width = 4;
constexpr std::size_t function_width = 36;
constexpr std::size_t line_width = 4;
constexpr std::size_t longest_name = 64;   // of tag or function; what is longer is cut
constexpr std::size_t longest_number = 12; // "-2147483648" and its NUL

void put(const char *text, std::size_t length) { fwrite_unlocked(text, 1, length, stdout); }

// Appends text, then blanks up to `width`. Returns the new end.
char *append_left(char *end, const char *text, std::size_t length, std::size_t width) {
  end = std::copy_n(text, length, end);
  return length < width ? std::fill_n(end, width - length, ' ') : end;
}

// Appends a number after blanks or zeros up to `width`.
char *append_number(char *end, long long number, int base, std::size_t width, char fill) {
  std::array<char, 24> digits;
  const std::to_chars_result result = std::to_chars(digits.data(), digits.data() + digits.size(), number, base);
  const auto length = static_cast<std::size_t>(result.ptr - digits.data());
  if (length < width) {
    end = std::fill_n(end, width - length, fill);
  }
  return std::copy_n(digits.data(), length, end);
}

// "D:mld :mld_proxy_stop                      #  81: "
void put_prefix(char level, const log_site &site) {
  std::array<char, 2 * longest_name + 32> prefix;
  char *end = prefix.data();
  *end++ = level;
  *end++ = ':';
  end = append_left(end, site.tag, strnlen(site.tag, longest_name), tag_width);
  *end++ = ':';
  end = append_left(end, site.function, strnlen(site.function, longest_name), function_width);
  *end++ = '#';
  end = append_number(end, site.line, 10, line_width, ' ');
  *end++ = ':';
  *end++ = ' ';
  put(prefix.data(), static_cast<std::size_t>(end - prefix.data()));
}

void put_number(long long number, int base, std::size_t width) {
  std::array<char, longest_number + 16> text;
  const char *end = append_number(text.data(), number, base, width, '0');
  put(text.data(), static_cast<std::size_t>(end - text.data()));
}

// Writes the conversion that starts at `conversion` (its '%'). Returns what follows it, or null if it is not one of the
// few that the daemon's lines are made of.
const char *put_conversion(const char *conversion, va_list &arguments) {
  if (std::strncmp(conversion, "%s", 2) == 0) {
    const char *text = va_arg(arguments, const char *);
    put(text, std::strlen(text));
    return conversion + 2;
  }
  if (std::strncmp(conversion, "%d", 2) == 0) {
    put_number(va_arg(arguments, int), 10, 0);
    return conversion + 2;
  }
  if (std::strncmp(conversion, "%u", 2) == 0) {
    put_number(va_arg(arguments, unsigned int), 10, 0);
    return conversion + 2;
  }
  if (std::strncmp(conversion, "%02x", 4) == 0) {
    put_number(va_arg(arguments, unsigned int), 16, 2);
    return conversion + 4;
  }
  return nullptr;
}

void put_message(const char *format, va_list &arguments) {
  while (*format != '\0') {
    const char *conversion = strchrnul(format, '%');
    put(format, static_cast<std::size_t>(conversion - format));
    if (*conversion == '\0') {
      return;
    }
    format = put_conversion(conversion, arguments);
    if (format == nullptr) {
      std::vprintf(conversion, arguments);
      return;
    }
  }
}

void log_line(char level, const log_site &site, const char *format, va_list &arguments) {
  put_prefix(level, site);
  put_message(format, arguments);
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

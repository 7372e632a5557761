#include "core/log.h"

#include "core/settings.h"

#include <cstdarg>
#include <cstdio>

namespace {

void log_line(char level, const log_site &site, const char *format, va_list arguments) {
  std::printf("%c:%-4s:%-36s#%4d: ", level, site.tag, site.function, site.line);
  std::vprintf(format, arguments);
  std::putchar('\n');
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

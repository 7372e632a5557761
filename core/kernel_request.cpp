#include "core/kernel_request.h"

#include <cerrno>

bool kernel_request(log_site site, request_log style, int socket, const kernel_option &option, const void *value,
                    socklen_t length) {
  const bool accepted = setsockopt(socket, option.level, option.number, value, length) == 0;
  const int reason = errno;
  if (!accepted) {
    log_request_failed(site, option);
  }
  if (accepted || style == request_log::both) {
    log_request_done(site, option);
  }
  errno = reason;
  return accepted;
}

void log_request_done(log_site site, const kernel_option &option) { log_debug(site, "setsockopt: %s", option.name); }

void log_request_failed(log_site site, const kernel_option &option) {
  log_error(site, "setsockopt: %s fail!!!", option.name);
}

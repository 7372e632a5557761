// One way to ask the kernel for something with setsockopt and to log the answer.
#pragma once

#include "core/log.h"

#include <sys/socket.h>

struct kernel_option {
  int level;
  int number;
  const char *name; // as in the kernel's headers; log lines name the option by it
};

// What a request leaves in the log. Several paths write the plain line behind the failure line as well; each caller
// keeps its own style, for compatibility.
enum class request_log {
  either, // "setsockopt: NAME" (D) on success, "setsockopt: NAME fail!!!" (E) on failure
  both    // "setsockopt: NAME fail!!!" (E) on failure, then "setsockopt: NAME" (D) in any case
};

// Makes the request and logs it for `site`. Returns whether the kernel accepted it; errno is the kernel's.
bool kernel_request(log_site site, request_log style, int socket, const kernel_option &option, const void *value,
                    socklen_t length);

template <typename record>
bool kernel_request(log_site site, request_log style, int socket, const kernel_option &option, const record &value) {
  return kernel_request(site, style, socket, option, &value, sizeof(value));
}

// The two lines by themselves, for callers with an order of their own.
void log_request_done(log_site site, const kernel_option &option);
void log_request_failed(log_site site, const kernel_option &option);

// What the companion tells its operator: one line each on standard error, "tarnwick-assist: ..." in front.
#pragma once

// Writes one line; `format` is printf's and carries no newline of its own.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Writes one line that ends in ": " and the reason (`strerror` of `reason`). errno stays as it was.
void say_refused(int reason, const char *format, ...) __attribute__((format(printf, 2, 3)));

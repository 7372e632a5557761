// What the supervisor tells its operator, one line each, through the log's sink.
#pragma once

// Write one line; `format` is printf's and carries no newline of its own. errno stays as it was.
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Writes one error line that ends in ": " and the reason (`strerror` of `reason`).
void say_refused(int reason, const char *format, ...) __attribute__((format(printf, 2, 3)));

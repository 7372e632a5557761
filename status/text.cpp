#include "status/text.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

bool is_continuation(char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; }

} // namespace

void end_without_memory() {
  std::fputs("tarnwick-status: out of memory\n", stderr);
  std::exit(EXIT_FAILURE);
}

void add_text(text &built, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  add_text_list(built, format, arguments);
  va_end(arguments);
}

void add_text_list(text &built, const char *format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  if (length >= 0) {
    const auto bytes = static_cast<std::size_t>(length);
    make_room(built, built.count + bytes + 1);
    std::vsnprintf(built.first + built.count, bytes + 1, format, again);
    built.count += bytes;
  }
  va_end(again);
}

void add_bytes(text &built, const char *bytes, std::size_t count) {
  make_room(built, built.count + count + 1);
  std::memcpy(built.first + built.count, bytes, count);
  built.count += count;
  built.first[built.count] = '\0';
}

const char *text_of(const text &built) { return built.count == 0 ? "" : built.first; }

std::size_t columns_of(const char *utf8) {
  std::size_t columns = 0;
  for (; *utf8 != '\0'; ++utf8) {
    columns += is_continuation(*utf8) ? 0U : 1U;
  }
  return columns;
}

std::size_t bytes_of_columns(const char *utf8, std::size_t columns) {
  std::size_t bytes = 0;
  for (; utf8[bytes] != '\0'; ++bytes) {
    if (is_continuation(utf8[bytes])) {
      continue;
    }
    if (columns == 0) {
      break;
    }
    --columns;
  }
  return bytes;
}

bool read_file(text &content, const char *path) {
  constexpr std::size_t step_bytes = 4096;
  clear_rows(content);
  const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) {
    return false;
  }
  ssize_t got = 0;
  do {
    make_room(content, content.count + step_bytes + 1);
    got = read(file, content.first + content.count, step_bytes);
    content.count += got > 0 ? static_cast<std::size_t>(got) : 0;
  } while (got > 0 || (got < 0 && errno == EINTR));
  const int reason = errno;
  content.first[content.count] = '\0';
  close(file);
  errno = reason;
  return got == 0;
}

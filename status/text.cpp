#include "status/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
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

bool read_open_file(text &content, int file, std::size_t most_bytes) {
  constexpr std::size_t step_bytes = 4096;
  clear_rows(content);
  ssize_t got = 0;
  do {
    const std::size_t wanted = std::min(step_bytes, most_bytes - content.count);
    make_room(content, content.count + wanted + 1);
    got = read(file, content.first + content.count, wanted);
    content.count += got > 0 ? static_cast<std::size_t>(got) : 0;
  } while (got > 0 || (got < 0 && errno == EINTR));
  content.first[content.count] = '\0';
  return got == 0;
}

bool read_file(text &content, const char *path) {
  clear_rows(content);
  const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) {
    return false;
  }
  const bool is_read = read_open_file(content, file, SIZE_MAX);
  const int reason = errno;
  close(file);
  errno = reason;
  return is_read;
}

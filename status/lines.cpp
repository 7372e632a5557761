#include "status/lines.h"

#include <algorithm>
#include <cstring>

bool next_line(line_buffer &line, const char *&place) {
  if (*place == '\0') {
    return false;
  }
  const std::size_t length = std::strcspn(place, "\n");
  const std::size_t kept = std::min(length, line.size() - 1);
  std::memcpy(line.data(), place, kept);
  line[kept] = '\0';
  place += length;
  if (*place == '\n') {
    ++place;
  }
  return true;
}

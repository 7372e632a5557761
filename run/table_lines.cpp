#include "run/table_lines.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

bool read_more(table_lines &table) {
  const ssize_t length = read(table.file, table.bytes.data(), table.bytes.size());
  table.begin = 0;
  table.end = length > 0 ? static_cast<std::size_t>(length) : 0;
  return table.end > 0;
}

} // namespace

bool open_table(table_lines &table, const char *path) {
  table.begin = 0;
  table.end = 0;
  table.file = open(path, O_RDONLY | O_CLOEXEC);
  return table.file >= 0;
}

bool next_table_line(table_lines &table, table_line &line) {
  std::size_t length = 0;
  bool has_begun = false;
  while (table.begin < table.end || read_more(table)) {
    const char letter = table.bytes[table.begin++];
    has_begun = true;
    if (letter == '\n') {
      break;
    }
    if (length + 1 < line.size()) {
      line[length++] = letter;
    }
  }
  line[length] = '\0';
  return has_begun;
}

void close_table(table_lines &table) { close(table.file); }

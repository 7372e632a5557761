#include "status/heard.h"

#include "status/clock.h"

#include <arpa/inet.h>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::size_t table_bytes = HEARD_ROWS * sizeof(heard_row);

// Opens the descriptor that leads to the companion's memory; -1 if there is none.
int open_table(pid_t companion) {
  constexpr std::string_view beginning = "/memfd:";
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/fd", static_cast<int>(companion));
  DIR *folder = opendir(path.data());
  if (folder == nullptr) {
    return -1;
  }
  int table = -1;
  for (const dirent *entry = readdir(folder); entry != nullptr && table < 0; entry = readdir(folder)) {
    std::array<char, 64> target;
    const ssize_t length = readlinkat(dirfd(folder), entry->d_name, target.data(), target.size());
    std::string_view opened{target.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
    if (opened.starts_with(beginning)) {
      opened.remove_prefix(beginning.size());
      if (opened.starts_with(HEARD_TABLE_NAME)) {
        table = openat(dirfd(folder), entry->d_name, O_RDONLY | O_CLOEXEC);
      }
    }
  }
  closedir(folder);
  return table;
}

bool is_kind(heard_kind kind) { return kind > heard_kind::nothing && kind <= heard_kind::own_query; }

} // namespace

void parse_heard(rows_of<heard_line> &lines, const text &table, std::int64_t now_ms) {
  constexpr std::int64_t milliseconds_per_second = 1000;
  clear_rows(lines);
  for (std::size_t offset = 0; offset + sizeof(heard_row) <= table.count; offset += sizeof(heard_row)) {
    heard_row row;
    std::memcpy(&row, table.first + offset, sizeof(row));
    if (!is_kind(row.kind)) {
      continue;
    }
    heard_line line{row.kind, row.index, {}, {}, 0};
    inet_ntop(AF_INET6, row.group.data(), line.group.data(), INET6_ADDRSTRLEN);
    inet_ntop(AF_INET6, row.host.data(), line.host.data(), INET6_ADDRSTRLEN);
    line.seconds_ago =
        now_ms > row.heard_at_ms ? static_cast<long>((now_ms - row.heard_at_ms) / milliseconds_per_second) : 0;
    add_row(lines, line);
  }
}

bool read_heard(rows_of<heard_line> &lines, pid_t companion) {
  clear_rows(lines);
  const int file = companion > 0 ? open_table(companion) : -1;
  if (file < 0) {
    return false;
  }
  text table;
  const bool is_read = read_open_file(table, file, table_bytes);
  close(file);
  if (is_read) {
    parse_heard(lines, table, monotonic_milliseconds());
  }
  free_rows(table);
  return is_read;
}

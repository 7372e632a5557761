#include "status/state_files.h"

#include "status/lines.h"

#include <cstdio>

static_assert(IF_NAMESIZE == 16 && INET6_ADDRSTRLEN == 46, "the widths in the formats below");

void parse_type_messages(rows_of<interface_counters> &interfaces, const char *file) {
  line_buffer line;
  while (next_line(line, file)) {
    constexpr int items = 6;
    interface_counters read{};
    if (std::sscanf(line.data(), "[%7[A-Z]]ifname: %15s query: %d join: %d leave: %d timeout: %d", read.protocol.data(),
                    read.name.data(), &read.queries, &read.joins, &read.leaves, &read.timeouts) == items) {
      add_row(interfaces, read);
    }
  }
}

void parse_join_state(rows_of<group_line> &groups, const char *file) {
  line_buffer line;
  while (next_line(line, file)) {
    constexpr int items = 3;
    group_line read{};
    if (std::sscanf(line.data(), "ifname: %15s group: %45s average: %d", read.interface.data(), read.group.data(),
                    &read.average_seconds) == items) {
      add_row(groups, read);
    }
  }
}

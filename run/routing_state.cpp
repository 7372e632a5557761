#include "run/routing_state.h"

#include "run/table_lines.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char own_entries[] = "/proc/net/ip6_mr_cache";

// Calls `is_wanted` with each line of the table until it says yes. False if none is wanted or the table cannot be read.
template <typename condition> bool any_line(pid_t pid, const char *table_name, condition is_wanted) {
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/net/%s", static_cast<int>(pid), table_name);
  table_lines table;
  if (!open_table(table, path.data())) {
    return false;
  }
  bool is_found = false;
  for (table_line line; !is_found && next_table_line(table, line);) {
    is_found = is_wanted(line.data());
  }
  close_table(table);
  return is_found;
}

} // namespace

bool parse_mif(const char *line, std::uint32_t &number, interface_name &name) {
  name = {};
  constexpr int items = 2;
  return std::sscanf(line, "%" SCNu32 " %15s", &number, name.data()) == items;
}

bool is_static_entry(const char *line) {
  constexpr char unspecified[] = "0000:0000:0000:0000:0000:0000:0000:0000 0000:0000:0000:0000:0000:0000:0000:0000 ";
  return std::strncmp(line, unspecified, sizeof(unspecified) - 1) == 0;
}

bool has_mif(pid_t pid, const interface_name &name) {
  return any_line(pid, "ip6_mr_vif", [&](const char *line) {
    std::uint32_t number;
    interface_name found;
    return parse_mif(line, number, found) && found == name;
  });
}

bool has_static_entry(pid_t pid) { return any_line(pid, "ip6_mr_cache", is_static_entry); }

bool can_route_multicast() { return access(own_entries, R_OK) == 0; }

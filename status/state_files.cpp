#include "status/state_files.h"

#include "status/lines.h"

#include <arpa/inet.h>
#include <cstdio>

static_assert(IF_NAMESIZE == 16 && INET6_ADDRSTRLEN == 46, "the widths in the formats below");

namespace {

// Brings an IPv6 or IPv4 multicast address into its usual form. Returns false for any other text.
bool shorten_group(group_text &group) {
  in6_addr ipv6;
  in_addr ipv4;
  if (inet_pton(AF_INET6, group.data(), &ipv6) == 1) {
    return IN6_IS_ADDR_MULTICAST(&ipv6) && inet_ntop(AF_INET6, &ipv6, group.data(), INET6_ADDRSTRLEN) != nullptr;
  }
  return inet_pton(AF_INET, group.data(), &ipv4) == 1 && IN_MULTICAST(ntohl(ipv4.s_addr)) &&
         inet_ntop(AF_INET, &ipv4, group.data(), INET6_ADDRSTRLEN) != nullptr;
}

bool is_in_table(const char *device_table, const interface_text &name) {
  line_buffer line;
  while (next_line(line, device_table)) {
    const char *start = line.data() + std::strspn(line.data(), " ");
    const std::size_t length = std::strlen(name.data());
    if (length > 0 && std::strncmp(start, name.data(), length) == 0 && start[length] == ':') {
      return true;
    }
  }
  return false;
}

void confirm_interface(interface_text &name, const char *device_table) {
  if (!is_in_table(device_table, name)) {
    std::snprintf(name.data(), name.size(), "%s", GONE_INTERFACE);
  }
}

} // namespace

void confirm_interfaces(rows_of<interface_counters> &interfaces, rows_of<group_line> &groups,
                        const char *device_table) {
  for (interface_counters &interface : all_rows(interfaces)) {
    confirm_interface(interface.name, device_table);
  }
  for (group_line &group : all_rows(groups)) {
    confirm_interface(group.interface, device_table);
  }
}

void parse_type_messages(rows_of<interface_counters> &interfaces, const char *file) {
  line_buffer line;
  while (next_line(line, file)) {
    constexpr int items = 6;
    interface_counters read{};
    if (std::sscanf(line.data(), "[%7[A-Z]]ifname: %15s query: %d join: %d leave: %d timeout: %d", read.protocol.data(),
                    read.name.data(), &read.queries, &read.joins, &read.leaves, &read.timeouts) == items &&
        (std::strcmp(read.protocol.data(), "MLD") == 0 || std::strcmp(read.protocol.data(), "IGMP") == 0)) {
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
                    &read.average_seconds) == items &&
        shorten_group(read.group)) {
      add_row(groups, read);
    }
  }
}

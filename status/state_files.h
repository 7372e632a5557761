// The two files in which the daemon answers SIGUSR1. Malformed lines are skipped: other programs may have written
// them.
#pragma once

#include "status/text.h"

#include <array>
#include <cstdint>
#include <net/if.h>
#include <netinet/in.h>

using interface_text = std::array<char, IF_NAMESIZE>;
using group_text = std::array<char, INET6_ADDRSTRLEN>;

// "[MLD]ifname: br0 query: 1 join: 2 leave: 3 timeout: 4"
struct interface_counters {
  std::array<char, 8> protocol; // "MLD" or "IGMP"
  interface_text name;
  std::int32_t queries;
  std::int32_t joins;
  std::int32_t leaves;
  std::int32_t timeouts;
};

// "ifname: br0 group: ff0e::1 average: 42"
struct group_line {
  interface_text interface;
  group_text group;
  std::int32_t average_seconds;
};

inline constexpr char GONE_INTERFACE[] = "(gone)";

// Puts GONE_INTERFACE in place of each name that is not in the kernel's table of interfaces (/proc/net/dev).
void confirm_interfaces(rows_of<interface_counters> &interfaces, rows_of<group_line> &groups, const char *device_table);

// Each parses a whole file and adds what it holds. A group is taken if it is a multicast address, in its short form.
void parse_type_messages(rows_of<interface_counters> &interfaces, const char *file);
void parse_join_state(rows_of<group_line> &groups, const char *file);

// What the kernel has joined: /proc/net/igmp6 and /proc/net/mcfilter6 (net/ipv6/mcast.c).
#pragma once

#include "status/state_files.h"

#include <cstdint>

struct membership_row {
  std::uint32_t interface; // index
  group_text group;
  std::uint32_t users;
};

// A source that sockets have named for a group.
struct group_source_row {
  std::uint32_t interface; // index: the kernel cuts the name
  group_text group;
  group_text source;
  std::uint32_t included;
  std::uint32_t excluded;
};

// Each parses a whole table and adds its rows.
void parse_memberships(rows_of<membership_row> &memberships, const char *table);
void parse_group_sources(rows_of<group_source_row> &sources, const char *table);

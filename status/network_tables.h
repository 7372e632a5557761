// Links, link-local addresses and what bridges know of groups, as netlink lists them.
#pragma once

#include "assist/netlink_reader.h"
#include "status/state_files.h"

#include <cstdint>

using mac_address = std::array<std::uint8_t, 6>;

struct link_row {
  std::uint32_t index;
  std::uint32_t flags; // IFF_UP, IFF_LOWER_UP, ...
  interface_text name;
  mac_address mac;
  bool is_bridge;
  std::uint8_t snooping;                    // of a bridge: 1 while it watches MLD
  std::uint8_t mld_version;                 // of a bridge: 1 or 2
  group_text querier;                       // of a bridge: the one that it heard; "" for none
  std::uint64_t querier_left_centiseconds;  // until the bridge forgets it; 0: it has, or the querier is its own
  std::uint64_t querier_total_centiseconds; // what that began with
  std::uint32_t bridge;                     // of a bridge's port: index of the bridge; 0: is not a port
  std::uint8_t port_state;                  // of a port: BR_STATE_... (linux/if_bridge.h)
};

struct link_local_row {
  std::uint32_t index; // of its interface
  group_text address;
  bool is_usable;            // duplicate address detection has passed it
  double created_at_seconds; // CLOCK_MONOTONIC
};

// A group that a bridge holds.
struct bridge_group_row {
  std::uint32_t bridge; // index
  std::uint32_t port;   // index; that of the bridge itself for its own membership
  group_text group;
};

// A port behind which the bridge knows a multicast router.
struct router_port_row {
  std::uint32_t bridge;
  std::uint32_t port;
};

struct network_tables {
  rows_of<link_row> links;
  rows_of<link_local_row> addresses;
  rows_of<bridge_group_row> groups;
  rows_of<router_port_row> routers;
  bool has_links; // links and addresses could be read
  bool has_groups;
};

// Each adds the rows of a whole dump.
void parse_links(rows_of<link_row> &links, netlink_bytes messages);
void parse_link_locals(rows_of<link_local_row> &addresses, netlink_bytes messages);
void parse_bridge_groups(network_tables &tables, netlink_bytes messages);

// Asks the kernel, in the calling process's network namespace.
void read_network_tables(network_tables &tables);
void free_network_tables(network_tables &tables);

// Null if there is none.
const link_row *find_link(const network_tables &tables, const char *name);
const link_row *find_link(const network_tables &tables, std::uint32_t index);

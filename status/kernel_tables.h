// The kernel's view: /proc/net/ip6_mr_vif and /proc/net/ip6_mr_cache (net/ipv6/ip6mr.c).
#pragma once

#include "status/state_files.h"
#include "status/text.h"

#include <cstdint>

// A multicast interface (MIF) with its counters of forwarded traffic.
struct mif_row {
  std::int32_t number;
  interface_text name;
  interface_text host_name; // in a private network: the host's interface behind it; empty = none, or not known
  std::uint64_t bytes_in;
  std::uint64_t packets_in;
  std::uint64_t bytes_out;
  std::uint64_t packets_out;
};

// An interface as the kernel itself counts it.
struct device_row {
  interface_text name;
  std::int32_t index; // 0: not known, it has no IPv6 address
  std::uint64_t packets_sent;
};

// A forwarding entry. Addresses in the usual short text.
struct cache_row {
  group_text group;
  group_text origin;   // "::" for any
  std::int32_t parent; // MIF number; -1: the kernel holds packets back and waits for an entry
  std::uint64_t packets;
  std::uint64_t bytes;
  std::uint64_t wrong_interface;
  std::uint32_t outputs; // bit n: MIF n
};

// Each parses a whole table and adds its rows; it skips the heading, malformed lines, and the shields that
// tarnwick-assist puts before entries.
void parse_mif_table(rows_of<mif_row> &mifs, const char *table);
void parse_cache_table(rows_of<cache_row> &entries, const char *table);

// /proc/net/dev, and then the indexes from /proc/net/if_inet6.
void parse_device_table(rows_of<device_row> &devices, const char *table);
void parse_indexes(rows_of<device_row> &devices, const char *if_inet6);

// The interface of a name; null if there is none.
const device_row *find_device(const rows_of<device_row> &devices, const interface_text &name);

// The MIF with a number; null if there is none.
const mif_row *find_mif(const rows_of<mif_row> &mifs, std::int32_t number);

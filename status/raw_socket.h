// Which processes hold raw ICMPv6 sockets: one of them holds the IPv6 routing socket.
#pragma once

#include "status/daemon_process.h"

#include <cstdint>

// Inodes of the raw ICMPv6 sockets in /proc/net/raw6. The table's other protocols are passed over.
void parse_raw_icmpv6_sockets(rows_of<std::uint64_t> &inodes, const char *table);

// Whether a process has one of its network namespace's raw ICMPv6 sockets open; false where that may not be read.
bool holds_raw_icmpv6_socket(pid_t pid);

// Adds the processes that have one of the sockets open. Processes of other users are seen by root alone.
void list_socket_holders(rows_of<process_facts> &holders, const rows_of<std::uint64_t> &inodes);

// Which processes may hold the kernel's one multicast routing socket of this network namespace.
#pragma once

#include <array>
#include <cstdint>
#include <sys/types.h>

using rivals_text = std::array<char, 120>;

// The socket inode of a line of /proc/net/raw6, if it is an ICMPv6 socket; 0 otherwise.
std::uint64_t icmpv6_socket_of(const char *line);

// "name (PID), name (PID)": processes with a raw ICMPv6 socket but `companion`. Empty if none may be seen. Only such a
// socket can be the routing one, but not each is.
void find_rivals(pid_t companion, rivals_text &rivals);

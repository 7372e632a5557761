// What a process's network namespace has of multicast routing: its MIFs and the companion's entry.
#pragma once

#include "run/options.h"

#include <cstdint>
#include <sys/types.h>

// One line of /proc/net/ip6_mr_vif: number and name of a MIF. False if it makes no sense (the headline).
bool parse_mif(const char *line, std::uint32_t &number, interface_name &name);

// Whether a line of /proc/net/ip6_mr_cache is the entry (::, ::).
bool is_static_entry(const char *line);

// Whether the interface is a MIF in the namespace of `pid`.
bool has_mif(pid_t pid, const interface_name &name);

// Whether the entry (::, ::) stands in the namespace of `pid`.
bool has_static_entry(pid_t pid);

// Whether the kernel has IPv6 multicast routing.
bool can_route_multicast();

// Requests about entries of the kernel's IPv6 multicast forwarding cache (linux/mroute6.h). The kernel takes them from
// any socket whose owner has CAP_NET_ADMIN.
//
// Several entries of one (::, G) stand side by side if their parents differ. A request that names no parent, as
// tarnwick's do, takes the newest of them, and packets pass over one whose parent leads nowhere. So a newer entry with
// such a parent, a shield, takes tarnwick's next delete in place of the entry that packets use.
#pragma once

#include "core/address.h"

#include <cstdint>

// By MIF number, which is the interface's index: bit i = MIF i.
using mif_set = std::uint32_t;

// No interface has index 0, so no MIF has this number.
inline constexpr std::uint32_t SHIELD_PARENT = 0;

// All return false with errno when the kernel refuses.

// Adds the newest entry of the origin and group, or changes it, whatever its parent is.
bool put_newest_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent,
                      mif_set outputs);

// The same for the newest entry of that parent; the only way to one behind a shield.
bool put_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent,
               mif_set outputs);

bool put_shield(int socket, const ipv6_address &group);

bool delete_newest_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent);
bool delete_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent);

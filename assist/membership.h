// Memberships in multicast groups. Every one ends with its socket.
#pragma once

#include "core/address.h"

#include <cstdint>

// Becomes a member for all sources on the interface with this index. Returns whether the kernel accepted it; errno is
// the kernel's. Logs nothing.
bool join_group(int socket, const ipv6_address &group, std::uint32_t index);

// Leaves; a membership whose interface is gone is forgotten, which gives its memory back.
void leave_group(int socket, const ipv6_address &group, std::uint32_t index);

// The same for ff02::16, the MLDv2 routers' group (RFC 3810, section 5.2.14). Hosts send their reports there, and a
// mainline kernel delivers them to nobody on an interface where nobody has joined. Joins anew if the socket is a member
// of an earlier bearer of the index.
bool join_report_group(int socket, std::uint32_t index);
void leave_report_group(int socket, std::uint32_t index);

// Membership in ff02::16, the MLDv2 routers' group (RFC 3810, section 5.2.14). Hosts send their reports there, and a
// mainline kernel delivers them to nobody on an interface where nobody has joined.
#pragma once

#include <cstdint>

// Joins on the interface with this index, anew if the socket is a member of an earlier bearer of the index. Returns
// whether the kernel accepted it; errno is the kernel's. Logs nothing.
bool join_report_group(int socket, std::uint32_t index);

// Leaves; a membership whose interface is gone is forgotten, which gives its memory back.
void leave_report_group(int socket, std::uint32_t index);

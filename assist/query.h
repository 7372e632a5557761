// MLDv2 queries (RFC 3810, section 5.1), sent by an ordinary raw ICMPv6 socket, so that the snooping of a bridge takes
// them for what they are.
#pragma once

#include "core/address.h"

#include <cstdint>

// Sends a query for `group` (:: = general query) on the interface with this index: from the interface's own link-local
// address, to ff02::1 or to the group. Returns whether the kernel took it; errno is the kernel's, EADDRNOTAVAIL while
// the interface has no link-local address that may be used. Logs nothing.
bool send_query(int socket, std::uint32_t index, const ipv6_address &group, std::uint16_t max_response_ms);

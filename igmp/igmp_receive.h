// The entry of every IGMP message: reading it, finding its interface, dispatching on its type.
#pragma once

#include "igmp/igmp_router.h"

// Reads one datagram from `IgmpRouter.socket` and handles it. What comes from the upstream interface is skipped; one
// without packet information is dropped silently. The checksum is not looked at.
void igmp_network_socket_read_data();

// Querier election (RFC 2236, section 3) by any query heard downstream: the address that is lower as a native word
// wins, so on a little-endian router the last octet weighs most. With -q 1 the proxy keeps the querier role whatever it
// hears, the reverse of what the option's name says; kept for compatibility.
void igmp_router_received_general_query(igmp_interface *intr, std::uint32_t sender);

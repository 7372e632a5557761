// Sending membership queries (RFC 2236) on a downstream interface.
#pragma once

#include "igmp/igmp_router.h"

// Sends one query where the proxy is querier; a failure is logged. `max_resp` is in tenths of a second. A query for
// `InAddrAny` is a general one and goes to the word of all hosts, any other to its group.
void igmp_router_send_query(const igmp_interface *intr, std::uint8_t max_resp, std::uint32_t group);

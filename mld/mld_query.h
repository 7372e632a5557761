// Sending queries on a downstream interface.
#pragma once

#include "mld/mld_router.h"

// Sends one query without sources; `group` is :: for a general query. `max_resp` (tenths of a second) is not used:
// every query asks for answers within two seconds. Does nothing but log where the proxy is not querier.
void mld_router_v2_send_query(const mld_interface *intr, std::uint8_t max_resp, const ipv6_address &group);

// Sends the group's next pending query with every source whose timer ran out, and returns its record to the pool; with
// no query pending it decides the group's fate instead (mld_router_retransmit_timer_expired). Returns the group that
// follows on the interface, or null at the end of the list or after a failed removal.
mld_group *mld_router_v2_send_query_more_src(mld_interface *intr, mld_group *group);

// Leave messages (RFC 2236).
#pragma once

#include "igmp/igmp_router.h"

// Queues the group's last-member queries and lets the timers decide. A leave while version 1 hosts are there is
// ignored. When the query pool is empty the group stays in its state, with the queries that were queued before.
void igmp_router_leave_handler(igmp_interface *intr, std::uint32_t address);

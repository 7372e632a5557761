// What hosts give up: the leave of a group, or of a source that ran out.
#pragma once

#include "mld/mld_record.h"
#include "mld/mld_router.h"

// `who` of mld_router_v2_leave_group when the record's source ran out by itself.
inline constexpr const ipv6_address *MLD_SOURCE_EXPIRED = nullptr;

// Starts the leave of a group: queues its queries and lets the timers decide. For an expired source it removes the
// source first, and ends the group if that was the last one. Returns the result of the host-table deletion or of the
// unlink that ended it, 0 for an unknown group.
int mld_router_v2_leave_group(mld_interface *intr, const mld_record &record, const ipv6_address *who);

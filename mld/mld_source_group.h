// Groups and their source slots in step with MLDv2 reports: joining and leaving.
#pragma once

#include "mld/mld_record.h"
#include "mld/mld_router.h"

// Whom a join is for: every source (an EXCLUDE record without sources) or the record's sources.
enum class joined_sources { all = 0, listed = 1 };

// Creates or refreshes the record's group and joins upstream. An all-sources report for a group without a pending
// retransmission drops the group upstream and creates it afresh; set-top boxes rely on the renewed upstream report.
void mld_router_v2_add_src_group(mld_interface *intr, const mld_record &record, joined_sources with_sources,
                                 const ipv6_address &sender);

// `who` of mld_router_v2_leave_group when the record's source ran out by itself.
inline constexpr const ipv6_address *MLD_SOURCE_EXPIRED = nullptr;

// Starts the leave of a group: queues its queries and lets the timers decide. For an expired source it removes the
// source first, and ends the group if that was the last one. Returns the result of the host-table deletion or of the
// unlink that ended it, 0 for an unknown group.
int mld_router_v2_leave_group(mld_interface *intr, const mld_record &record, const ipv6_address *who);

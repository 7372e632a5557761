// What hosts change in the sources of a group: EXCLUDE with sources, ALLOW and BLOCK.
#pragma once

#include "mld/mld_record.h"
#include "mld/mld_router.h"

// Types 2 and 4 with sources: creates the group if need be, marks the sources as not wanted and leaves them upstream.
// Leaves MldBlock at 1, so that sources recorded before the next such record start as not wanted.
void mld_router_v2_exclude_group(mld_interface *intr, const mld_record &record, const ipv6_address &sender);

// Type 5: adds or refreshes at most ten sources; an unknown group is created with all of the record's sources.
void mld_router_v2_allow_new_sources(mld_interface *intr, const mld_record &record, const ipv6_address &sender);

// Type 6: queues queries for at most ten sources; the timers decide about them.
void mld_router_v2_block_old_sources(mld_interface *intr, const mld_record &record, const ipv6_address &sender);

// What hosts ask for: joining a group for all sources or for listed ones.
#pragma once

#include "mld/mld_record.h"
#include "mld/mld_router.h"

// Whom a join is for: every source (an EXCLUDE record without sources) or the record's sources.
enum class mld_joined_sources { all = 0, listed = 1 };

// Creates or refreshes the record's group and joins upstream. An all-sources report for a group without a pending
// retransmission drops the group upstream and creates it afresh, which shows upstream as a second join.
void mld_router_v2_add_src_group(mld_interface *intr, const mld_record &record, mld_joined_sources with_sources,
                                 const ipv6_address &sender);

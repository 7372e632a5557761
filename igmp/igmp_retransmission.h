// Last-member queries, and what becomes of a group when they went unanswered.
#pragma once

#include "core/log.h"
#include "igmp/igmp_router.h"

// One tick of a group whose membership is checked: counts down to its next query, sends it, or, when none is pending
// any more, ends the group. Returns false when the group could not be unlinked; it stays as it is then.
bool igmp_router_retransmit_timer_expired(igmp_interface *intr, igmp_group *group);

// Unlinks a group, drops it upstream and gives its record back, for `site`. Returns false after logging when the
// group could not be unlinked; it stays as it is then.
bool igmp_end_group(log_site site, igmp_interface *intr, igmp_group *group);

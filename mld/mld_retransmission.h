// What becomes of a group when its last queries went unanswered.
#pragma once

#include "mld/mld_router.h"

// For a group whose queries are all sent and whose answer time is over: blocks and removes the sources that ran out
// while others are wanted, or ends the group. `is_suppressed`: a lasting any-source slot covers them, so
// nothing is blocked. Returns the group that follows on the interface; null at the end of the list or after a failed
// removal.
mld_group *mld_router_retransmit_timer_expired(mld_interface *intr, mld_group *group, bool is_suppressed);

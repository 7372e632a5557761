// One tick of the MLD side: every timer of every interface and group.
#pragma once

#include "mld/mld_router.h"

// Runs once a second from the main loop.
void mld_router_timer_expired();

// Ends a group whose group timer ran out. Returns false when it could not be unlinked; it stays as it is then.
bool mld_router_group_timer_expired(mld_interface *intr, mld_group *group);

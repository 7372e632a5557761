// One tick of the IGMP side: every timer of every interface and group.
#pragma once

#include "igmp/igmp_router.h"

// To be run once a second.
void igmp_router_timer_expired();

// One tick of the version 1 host timer; at its end the group follows version 2 rules again.
void igmp_router_v1_host_timer_expired(const igmp_interface *intr, igmp_group *group);

// One tick of the group timer; at its end the group ends and the snooping program is signalled. Returns false when the
// group could not be unlinked; it stays as it is then.
bool igmp_router_group_timer_expired(igmp_interface *intr, igmp_group *group);

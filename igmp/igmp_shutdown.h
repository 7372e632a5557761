// Undoing everything: memberships, forwarding, flags, VIFs and MIFs, memory.
#pragma once

#include "igmp/igmp_router.h"

// Drops the interface's groups, restores its flags, deletes its VIF and MIF and closes its sockets. The record itself
// stays.
void igmp_proxy_clean_interface(igmp_interface *intr);

// Cleans every interface, the upstream one last, frees every record, gives multicast routing back to the kernel and
// logs the memory report. Also stops a proxy that is only half started, from init_igmp_socket on; a second call finds
// nothing to do. `IgmpRouter.socket` stays open until the process ends.
void igmp_proxy_stop();

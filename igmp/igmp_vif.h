// Interfaces as the kernel's multicast router numbers them: VIFs for IPv4, MIFs for IPv6 (linux/mroute.h, mroute6.h).
#pragma once

#include "core/log.h"
#include "igmp/igmp_router.h"

// Register the interface under its kernel index and set `vif_index` to it, or to -1 after logging a refusal for
// `site`. A VIF holds a slot of the device index table while it is registered.
void igmp_add_vif(log_site site, igmp_interface *intr);
void igmp_add_mif(log_site site, igmp_interface *intr);

// Undo the two. A refusal is logged for `site`. Deleting a MIF leaves the device index table alone.
void igmp_delete_vif(log_site site, const igmp_interface *intr);
void igmp_delete_mif(log_site site, const igmp_interface *intr);

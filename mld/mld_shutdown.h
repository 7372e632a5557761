// Undoing everything: memberships, forwarding, flags, MIFs, memory.
#pragma once

#include "mld/mld_router.h"

// Drops the interface's groups, restores its flags and deletes its MIF. The record itself stays.
void mld_proxy_clean_interface(mld_interface *intr);

// Cleans every interface, the upstream one last, frees every record, gives multicast routing back to the kernel and
// logs the memory report. Also stops a proxy that is only half started; a second call finds nothing to do.
void mld_proxy_stop();

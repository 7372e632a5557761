// From configured interface names to interface records with MIFs.
#pragma once

#include "mld/mld_router.h"

// Finds the upstream and the downstream interfaces, sets their flags, learns their link-local addresses, registers
// their MIFs and links them into `MldRouter.interfaces`. Returns 0, or -1 after logging and stopping the proxy.
int mld_create_network_list();

// Returns 0 if an upstream interface was found, or -1 after logging and stopping the proxy.
int mld_check_upstream_interface();

// Walks the proxy's interfaces; null if none has that kernel index.
mld_interface *mld_find_interface(std::uint32_t ifindex);

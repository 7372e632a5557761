// From the kernel's list of IPv4 interfaces to interface records with VIFs and MIFs.
#pragma once

#include "igmp/igmp_router.h"

// Walks the kernel's interfaces once: finds the upstream interface by its name, takes every other one that is not
// ignored, loopback or named like a WAN device as downstream (the names given with -d are not consulted), sets flags,
// opens sockets, joins the all-routers group downstream, registers with the kernel and links the records into
// `IgmpRouter.interfaces`. Returns 0, or -1 after stopping the proxy: after a fatal failure, which is logged, and
// without any candidate besides the upstream interface, which is not.
int igmp_create_network_list();

// Returns 0 if an upstream interface was found, or -2 after logging and stopping the proxy.
int igmp_check_upstream_interface();

// Walks the proxy's interfaces; null if none has that kernel index.
igmp_interface *igmp_find_interface(std::int32_t ifindex);

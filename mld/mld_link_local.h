// The link-local address of an interface, from the kernel's table of addresses.
#pragma once

#include "mld/mld_router.h"

// Fills `link_local` with the first fe80::/10 address that /proc/net/if_inet6 lists for the interface's name. Returns
// 0, or -1 after logging. Names over 8 characters are never found: the table is read with that width.
int set_linklocal(mld_interface *intr);

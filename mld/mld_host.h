// Which host reported which source of which group on an interface. Nothing is decided by this table: whether a group or
// source is still wanted is asked with queries.
#pragma once

#include "mld/mld_router.h"

// Of all interfaces' hosts, by group, host and source.
extern list_index MldHostIndex;
std::uint32_t mld_host_key(const mld_host *host);

// First record that matches. A host other than :: must match together with group and source; for host :: any host
// does, and for source :: with it any source, too. Null if there is none.
mld_host *mld_router_host_lookup(const mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                                 const ipv6_address &source);

// Returns the matching record, or a new one at the end of the list; null after logging when the pool is empty.
mld_host *mld_router_host_add(mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                              const ipv6_address &source);

// Unlinks the first match. Returns the unlink's result, 0 also when nothing matched. The record does NOT go back to
// the pool: after 128 additions in all no more hosts are recorded, and the shutdown reports the lost ones as leaks.
int mld_router_host_del(mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                        const ipv6_address &source);

// Gives all of the interface's records back to the pool, in their order.
void mld_return_hosts(mld_interface *intr);

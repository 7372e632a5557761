// The entries of the kernel's IPv6 multicast forwarding cache (linux/mroute6.h): adding and deleting them. Their parent
// is the upstream MIF.
#pragma once

#include "core/log.h"
#include "mld/mld_router.h"

#include <array>
#include <linux/mroute6.h>

// One for each MIF, 1 where the stream is to go. MIFs from 32 on cannot be outputs: the kernel numbers 32 of them.
using mld_outputs = std::array<std::uint8_t, MAXMIFS>;

// Passes over a MIF that cannot be an output.
void mld_set_output(mld_outputs &outputs, std::uint32_t vif_index);

// Adds the entry (origin, group) or replaces it. Logs either the success or the failure, and returns whether the kernel
// accepted it.
bool mld_add_entry(log_site site, const ipv6_address &origin, const ipv6_address &group, const mld_outputs &outputs);

// The same without a line in the log: the caller has its own.
bool mld_add_entry_unlogged(const ipv6_address &origin, const ipv6_address &group, const mld_outputs &outputs);

// Deletes the entry (origin, group), with both log lines of a failure.
void mld_delete_entry(log_site site, const ipv6_address &origin, const ipv6_address &group);

// Deletes and adds the entry (::, group), in a form that a mainline kernel nearly always refuses: then the entry stays
// as it is, and an interface that lost the group goes on receiving until the entry is replaced.
void mld_rewrite_entry(log_site site, const ipv6_address &group, const mld_outputs &outputs);

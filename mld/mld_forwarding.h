// Requests for the kernel's IPv6 multicast forwarding cache (linux/mroute6.h).
#pragma once

#include "core/log.h"
#include "mld/mld_router.h"

#include <array>
#include <linux/mroute6.h>

// One entry per MIF, 1 where the stream is to go. MIFs from 32 on cannot be outputs: the kernel numbers 32 of them.
using mld_outputs = std::array<std::uint8_t, MAXMIFS>;

// Why the outputs are collected; decides what each interface that has the group leaves in the log.
enum class outputs_purpose { add_entry, drop_membership };

struct collected_outputs {
  mld_outputs oifs;
  bool is_wanted; // some downstream interface has the group, be its MIF an output or not
};

// Walks the downstream interfaces that have the group.
collected_outputs mld_collect_outputs(log_site site, const mld_group *group, outputs_purpose purpose);

// A request with the upstream MIF as parent and no outputs. The address families stay 0, as this router's kernel
// expects; mainline kernels do not look at them.
mf6cctl mld_mfc_request(const ipv6_address &origin, const ipv6_address &group);

void mld_set_outputs(mf6cctl &request, const mld_outputs &oifs);
void mld_set_output(mf6cctl &request, std::uint32_t vif_index);

// Deletes the entry (origin, group), with both log lines of a failure.
void mld_delete_mfc(log_site site, const ipv6_address &origin, const ipv6_address &group);

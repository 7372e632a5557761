// What the proxy asks for upstream on the hosts' behalf, and which forwarding entries go with it. Kernel refusals are
// logged and change no record of the proxy.
#pragma once

#include "core/kernel_request.h"
#include "mld/mld_router.h"

// Joins the group upstream for any source (leaving and joining again if it is joined already, which refreshes a stale
// membership) and adds the (::, G) entry towards every interface that has the group.
void mld_proxy_add_membership(const mld_group *group);

// Joins (source, group) upstream and adds its entry.
void mldv2_add_src_membership(mld_group *group, const ipv6_address &source);

// For a group that was just unlinked from an interface: leaves upstream and deletes the entries of its sources, or,
// while another interface has the group, only rewrites the (::, G) entry.
void mld_proxy_drop_membership(mld_group *group);

// Ends a group that was just unlinked: drops it upstream, then releases its record.
void mld_retire_group(mld_group *group);

// Source filters on the upstream socket.
void mld_block_source(log_site site, const ipv6_address &group, const ipv6_address &source);
bool mld_leave_source(log_site site, request_log style, const ipv6_address &group, const ipv6_address &source);

// What the proxy asks for upstream on the hosts' behalf, and the forwarding entries that go with it: the IPv4 group in
// mode 4to4; in mode 4to6 the IPv6 group that stands for it, and the translator's map of the two. Kernel refusals are
// logged and change no record of the proxy.
#pragma once

#include "igmp/igmp_router.h"

// Joins the group upstream and adds its entry towards every interface that has the group. A join that is refused is
// left and tried again, which refreshes a stale membership; no entry is made then.
void igmp_proxy_add_membership(const igmp_group *group);

// For a group that was just unlinked from an interface: leaves upstream and deletes the entry, or, while another
// interface has the group, only rewrites the entry. An entry whose upstream leave was refused stays.
void igmp_proxy_drop_membership(const igmp_group *group);

// The hosts' part: who wants the group.
#pragma once

#include "status/check_list.h"
#include "status/path_facts.h"

void check_hosts(check_list &list, const check_subject &subject, const path_facts &facts);

// Whether the LAN interface has hosts that want the subject's group, by what the daemon says.
bool has_listeners(const check_subject &subject, const interface_text &lan);

// Adds the sources that hosts have named for the group; none where somebody wants all of them. The kernel lists an
// interface's sources only while its newest membership has some (net/ipv6/mcast.c); otherwise forwarding entries do.
void list_wanted_sources(rows_of<group_text> &sources, const check_subject &subject, const path_facts &facts);

// A membership of our own beside tarnwick's on the upstream interface. tarnwick's socket has one membership for each
// group: a listed source that it joins behind an any-source join turns that into a membership for the listed sources
// alone. The kernel asks upstream for what all sockets together want, so a second one for all sources mends it.
#pragma once

#include "assist/group_table.h"

// Joins when a group with any-source listeners gets an entry for a listed source; leaves when no interface has the
// any-source entry any more. In between listed sources may come and go. Says why the kernel refused a join, once; the
// next change of the group tries again.
void fit_upstream_membership(watched_group &group);

void end_upstream_membership(watched_group &group);

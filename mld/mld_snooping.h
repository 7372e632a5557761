// The message to the router's snooping program that a group is gone.
#pragma once

#include "core/address.h"

// Writes "/tmp/tarnwick_leave_record" and signals `igmp_snooping` with SIGUSR2. A file that cannot be opened is
// logged, and nobody is signalled then. `source` is :: when the whole group went.
void mld_snooping_leave(const ipv6_address &source, const ipv6_address &group);

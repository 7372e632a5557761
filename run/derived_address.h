// MAC addresses of a private network's links: the same at every start, so that the provider's equipment and the LAN's
// hosts meet one more station and not a new one each time.
#pragma once

#include "run/link_facts.h"

// A locally administered unicast address made from the host interface's own one. `purpose` keeps two networks on one
// interface apart; `attempt` counts from 0 and gives another address each time.
ether_address derive_inner_address(const ether_address &host_address, const char *purpose, unsigned attempt);

// For the end that is a port of a bridge. A bridge takes the numerically least address of its ports for its own: this
// one begins with fe, so that the bridge keeps the address that it has.
ether_address derive_outer_address(const ether_address &inner_address);

// Whether an interface of the host can carry a link of a private network, in words for its operator.
#pragma once

#include "run/link_facts.h"

using reason_text = std::array<char, 256>;

// True if a macvlan or ipvlan link can lie on the interface as far as its properties tell; `reason` says why not.
// `master` is what the interface is a port of; its index is 0 if that is nothing.
bool can_carry_link(const link_facts &host, const link_facts &master, reason_text &reason);

bool is_bridge(const link_facts &host);

// Why the kernel refused to make a link of that kind ("macvlan", "ipvlan", "veth") on, or for, the interface.
reason_text reason_of_refusal(int refusal, const char *kind, const char *host_name);

// Whether an interface of the host can carry a link of a private network, in words for its operator.
#pragma once

#include "run/link_facts.h"

using reason_text = std::array<char, 256>;

// What is known of an interface.
struct carrier_facts {
  link_facts link;
  link_facts master;        // what it is a port of; index 0 = nothing
  bool is_wireless_station; // of somebody's access point
};

// Asks the kernel. Returns 0, or the reason: ENODEV = not there.
int ask_carrier(int host_socket, const char *name, carrier_facts &facts);

// True if a link of that kind can lie on the interface as far as its properties show; `reason` says why not.
bool can_carry_link(const carrier_facts &carrier, upstream_link_kind kind, reason_text &reason);

bool is_bridge(const link_facts &host);

// Why the kernel refused to make a link of that kind ("macvlan", "ipvlan", "veth") on, or for, the interface.
reason_text reason_of_refusal(int refusal, const char *kind, const char *host_name);

// Which network mode would work here, and why the other one would not.
#pragma once

#include "run/carrier_judgement.h"
#include "run/options.h"

// What is known of the interfaces; the upstream first, then the downstream ones in the order of the command line.
struct considered_interface {
  interface_name name;
  bool is_there;
  carrier_facts carrier; // if it is there
};

struct considered_host {
  std::array<considered_interface, MOST_DOWNSTREAMS + 1> interfaces;
  std::size_t count;
  upstream_link_kind upstream_link;
  bool is_routing_taken; // a program has claimed IPv6 multicast routing in the host's network
};

struct reason_list {
  std::array<reason_text, 32> reasons;
  std::size_t count;
};

// Add what speaks against the mode. Nothing is added where it would work.
void judge_host_network(const considered_host &host, reason_list &against);
void judge_private_network(const considered_host &host, reason_list &against);

// --explain: prints on standard output which mode would work here, and why. Returns the exit status: 0 if the mode of
// the command line would work, 1 if not.
int explain_networks(const run_options &options);

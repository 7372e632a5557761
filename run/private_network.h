// A network namespace for daemon and companion, with links to the host's interfaces.
//
//       host                                     private network
//   eth0.2  (any name, any index) <--- macvlan --- up0   (index 2)
//   br-lan  <- port -- tarnwick0  <---- veth ----- down0 (index 3)
//   lan9    (not a bridge)        <--- macvlan --- down1 (index 4)
//
// Nothing of it lasts longer than its holder: the namespace is held by descriptors and by the processes in it.
#pragma once

#include "run/options.h"
#include "run/private_link.h"

struct network_wish {
  interface_name upstream; // the host's
  upstream_link_kind upstream_link;
  std::array<interface_name, MOST_DOWNSTREAMS> downstreams; // only those that exist now
  std::size_t downstream_count;
};

struct private_network {
  int descriptor = -1;       // of the namespace, close-on-exec; -1 = not made. Children enter it with setns().
  interface_name upstream{}; // the inner names, in the order of the wish
  std::array<interface_name, MOST_DOWNSTREAMS> downstreams{};
  std::size_t downstream_count = 0;
  int host_socket = -1;                                   // netlink, in the host's namespace
  int inner_socket = -1;                                  // netlink, in the private one
  std::array<private_link, MOST_DOWNSTREAMS + 1> links{}; // the upstream first
  std::size_t link_count = 0;
};

// Makes namespace and links. On failure nothing is left, and it has said in plain words why (for an interface that
// cannot carry a macvlan: --network=host).
bool make_private_network(const network_wish &wish, private_network &made);

// Removes links and namespace; called when no process is inside any more. Does nothing if not made.
void remove_private_network(private_network &made);

// Whether every link stands and has its link-local address: daemon and companion may start. Asked every 250 ms while
// waiting for it.
bool is_private_network_ready(const private_network &made);

// The host's interface whose link does not stand any more; null if all do. A macvlan goes with its parent, a veth pair
// when either end is deleted, and is of no use outside its bridge. Asked after each link notification of the host's
// namespace.
const interface_name *find_lost_link(const private_network &made);

// Removes what a killed supervisor for the same interfaces has left. Called once before the first start.
void remove_stale_private_network(const run_options &options);

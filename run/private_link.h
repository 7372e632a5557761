// One link of a private network: on the host's interface itself, or a pair with one end in the host's bridge.
#pragma once

#include "run/link_facts.h"

struct private_link {
  interface_name host_name; // the host's interface
  std::uint32_t host_index;
  std::uint32_t inner_index;
  std::uint32_t outer_index; // the end that is a port of the host's bridge; 0 = the link lies on the interface itself
  ether_address address;     // of the inner link
};

// What making a link needs beside the link itself.
struct link_workshop {
  int host_socket;       // netlink, in the host's namespace
  int inner_socket;      // netlink, in the private one
  int network_namespace; // descriptor of the private one
};

// Where the link leads and how it is to be called.
struct link_plan {
  interface_name host_name;
  interface_name inner_name;
  const char *purpose; // keeps the addresses of two networks on one interface apart
  bool is_upstream;
  upstream_link_kind kind; // of a link that lies on the interface itself
};

// Makes the link and brings it up. On failure nothing is left, and it has said why in plain words.
bool make_private_link(const link_workshop &workshop, const link_plan &plan, private_link &made);

// Removes both ends; an end that is gone already is passed over.
void remove_private_link(const link_workshop &workshop, const private_link &made);

// Whether the link and, of a pair, its other end and that end's bridge still stand.
bool is_private_link_whole(const link_workshop &workshop, const private_link &made);

// Whether packets pass: a bridge that runs the spanning tree protocol opens a new port after its forward delay only.
bool is_private_link_open(const link_workshop &workshop, const private_link &made);

// Deletes the host's end of pairs that were made for an interface by a supervisor that does not live any more.
void remove_orphaned_links(int host_socket, const interface_name &host_name);

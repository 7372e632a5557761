// Requests that make, change and delete links (rtnetlink). Each function fills `request`, ready to be sent.
#pragma once

#include "run/link_facts.h"
#include "run/netlink_request.h"

// A link inside a private network. The kernel gives it the next free index there.
struct inner_link {
  interface_name name;
  ether_address address;
  int network_namespace; // descriptor
};

// Carried by the host's interface `parent`. `mode` is MACVLAN_MODE_... of linux/if_link.h.
void request_macvlan(netlink_request &request, const inner_link &link, std::uint32_t parent, std::uint32_t mode);

// Shares the parent's MAC address; `link.address` is not used.
void request_ipvlan(netlink_request &request, const inner_link &link, std::uint32_t parent);

// The other end of a pair, in the namespace of the socket that the request is sent by. Both ends get the MTU.
struct outer_link {
  interface_name name;
  ether_address address;
  std::uint32_t mtu;
};

void request_veth_pair(netlink_request &request, const inner_link &inner, const outer_link &outer);

void request_alias(netlink_request &request, std::uint32_t index, const char *alias);

// `mode` is IN6_ADDR_GEN_MODE_...: how the link gets its link-local address when it comes up, if at all.
void request_address_mode(netlink_request &request, std::uint32_t index, std::uint8_t mode);

void request_bridge_port(netlink_request &request, std::uint32_t index, std::uint32_t bridge);

// The bridge counts a multicast router behind its port from now on, also before it has heard a query from there.
void request_router_port(netlink_request &request, std::uint32_t index);

void request_up(netlink_request &request, std::uint32_t index);
void request_deletion(netlink_request &request, std::uint32_t index);

#include "run/private_link.h"

#include "run/carrier_judgement.h"
#include "run/derived_address.h"
#include "run/link_alias.h"
#include "run/link_request.h"
#include "run/netlink_exchange.h"
#include "run/report.h"

#include <cstdio>
#include <cstring>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <unistd.h>

namespace {

constexpr unsigned most_attempts = 16;    // addresses of other networks on the same interface
constexpr unsigned most_outer_links = 64; // tarnwick0, tarnwick1, ...

interface_name outer_name(unsigned number) {
  interface_name name{};
  std::snprintf(name.data(), name.size(), "tarnwick%u", number);
  return name;
}

int set_alias(int socket, std::uint32_t index, const alias_text &alias) {
  netlink_request request;
  request_alias(request, index, alias.data());
  return give_order(socket, request);
}

int set_address_mode(int socket, std::uint32_t index, std::uint8_t mode) {
  netlink_request request;
  request_address_mode(request, index, mode);
  return give_order(socket, request);
}

int bring_up(int socket, std::uint32_t index) {
  netlink_request request;
  request_up(request, index);
  return give_order(socket, request);
}

void delete_link(int socket, std::uint32_t index) {
  netlink_request request;
  request_deletion(request, index);
  give_order(socket, request);
}

// Whatever the host's default is, daemon and companion need a link-local address, and the same after each start.
int finish_inner_link(const link_workshop &workshop, const link_plan &plan, private_link &link) {
  link_facts facts;
  int reason = ask_link(workshop.inner_socket, plan.inner_name.data(), facts);
  if (reason == 0) {
    link.inner_index = facts.index;
    reason = set_alias(workshop.inner_socket, link.inner_index, alias_of_inner_link(link.host_name));
  }
  if (reason == 0) {
    reason = set_address_mode(workshop.inner_socket, link.inner_index, IN6_ADDR_GEN_MODE_EUI64);
  }
  return reason != 0 ? reason : bring_up(workshop.inner_socket, link.inner_index);
}

inner_link inner_link_of(const link_workshop &workshop, const link_plan &plan, const private_link &link) {
  return {plan.inner_name, link.address, workshop.network_namespace};
}

// Upstream, networks of two supervisors on one interface need not hear each other. On a LAN other macvlan links of the
// host may have listeners behind them.
std::uint32_t macvlan_mode_of(const link_plan &plan) {
  return plan.is_upstream ? MACVLAN_MODE_PRIVATE : MACVLAN_MODE_BRIDGE;
}

int make_macvlan(const link_workshop &workshop, const link_plan &plan, const link_facts &host, private_link &made) {
  int reason = EADDRINUSE;
  for (unsigned attempt = 0; attempt < most_attempts && reason == EADDRINUSE; ++attempt) {
    made.address = derive_inner_address(host.address, plan.purpose, attempt);
    netlink_request request;
    request_macvlan(request, inner_link_of(workshop, plan, made), host.index, macvlan_mode_of(plan));
    reason = give_order(workshop.host_socket, request);
    if (reason != 0) {
      return reason;
    }
    reason = finish_inner_link(workshop, plan, made);
    if (reason != 0) {
      delete_link(workshop.inner_socket, made.inner_index);
    }
  }
  return reason;
}

int make_ipvlan(const link_workshop &workshop, const link_plan &plan, const link_facts &host, private_link &made) {
  made.address = host.address;
  netlink_request request;
  request_ipvlan(request, inner_link_of(workshop, plan, made), host.index);
  int reason = give_order(workshop.host_socket, request);
  if (reason == 0) {
    reason = finish_inner_link(workshop, plan, made);
    if (reason != 0) {
      delete_link(workshop.inner_socket, made.inner_index);
    }
  }
  return reason;
}

bool make_link_on_interface(const link_workshop &workshop, const link_plan &plan, const carrier_facts &carrier,
                            private_link &made) {
  reason_text reason;
  if (!can_carry_link(carrier, plan.kind, reason)) {
    say_error("%s", reason.data());
    return false;
  }
  const link_facts &host = carrier.link;
  const bool is_ipvlan = plan.kind == upstream_link_kind::ipvlan;
  const int refusal = is_ipvlan ? make_ipvlan(workshop, plan, host, made) : make_macvlan(workshop, plan, host, made);
  if (refusal != 0) {
    say_error("%s", reason_of_refusal(refusal, is_ipvlan ? "ipvlan" : "macvlan", host.name.data()).data());
  }
  return refusal == 0;
}

// The bridge's MTU follows the least one of its ports, so the pair must not have a smaller one.
int make_pair(const link_workshop &workshop, const link_plan &plan, const link_facts &bridge, private_link &made) {
  made.address = derive_inner_address(bridge.address, plan.purpose, 0);
  int reason = EEXIST;
  for (unsigned number = 0; number < most_outer_links && reason == EEXIST; ++number) {
    const outer_link outer{outer_name(number), derive_outer_address(made.address), bridge.mtu};
    netlink_request request;
    request_veth_pair(request, inner_link_of(workshop, plan, made), outer);
    reason = give_order(workshop.host_socket, request);
    if (reason == 0) {
      link_facts facts;
      reason = ask_link(workshop.host_socket, outer.name.data(), facts);
      made.outer_index = facts.index;
    }
  }
  return reason;
}

// The host itself has nothing to say on this link: without a link-local address it sends nothing there.
int put_into_bridge(const link_workshop &workshop, const private_link &link) {
  process_identity maker{};
  identify_process(getpid(), maker);
  int reason = set_alias(workshop.host_socket, link.outer_index, alias_of_outer_link(maker, link.host_name));
  if (reason == 0) {
    reason = set_address_mode(workshop.host_socket, link.outer_index, IN6_ADDR_GEN_MODE_NONE);
  }
  netlink_request request;
  if (reason == 0) {
    request_bridge_port(request, link.outer_index, link.host_index);
    reason = give_order(workshop.host_socket, request);
  }
  if (reason == 0) {
    request_router_port(request, link.outer_index);
    const int refusal = give_order(workshop.host_socket, request);
    if (refusal != 0 && refusal != EOPNOTSUPP) { // a bridge without snooping sends everything everywhere
      reason = refusal;
    }
  }
  return reason != 0 ? reason : bring_up(workshop.host_socket, link.outer_index);
}

bool make_link_into_bridge(const link_workshop &workshop, const link_plan &plan, const link_facts &bridge,
                           private_link &made) {
  int refusal = make_pair(workshop, plan, bridge, made);
  if (refusal == 0) {
    refusal = put_into_bridge(workshop, made);
    refusal = refusal != 0 ? refusal : finish_inner_link(workshop, plan, made);
    if (refusal != 0) {
      delete_link(workshop.host_socket, made.outer_index);
    }
  }
  if (refusal != 0) {
    say_error("%s", reason_of_refusal(refusal, "veth pair", bridge.name.data()).data());
  }
  return refusal == 0;
}

} // namespace

bool make_private_link(const link_workshop &workshop, const link_plan &plan, private_link &made) {
  carrier_facts host;
  const int reason = ask_carrier(workshop.host_socket, plan.host_name.data(), host);
  if (reason != 0) {
    say_refused(reason, "cannot make a link for interface %s", plan.host_name.data());
    return false;
  }
  made = {plan.host_name, host.link.index, 0, 0, {}};
  return is_bridge(host.link) && !plan.is_upstream ? make_link_into_bridge(workshop, plan, host.link, made)
                                                   : make_link_on_interface(workshop, plan, host, made);
}

void remove_private_link(const link_workshop &workshop, const private_link &made) {
  if (made.outer_index != 0) {
    delete_link(workshop.host_socket, made.outer_index);
  } else {
    delete_link(workshop.inner_socket, made.inner_index);
  }
}

bool is_private_link_whole(const link_workshop &workshop, const private_link &made) {
  link_facts facts;
  if (ask_link(workshop.inner_socket, made.inner_index, facts) != 0) {
    return false;
  }
  return made.outer_index == 0 ||
         (ask_link(workshop.host_socket, made.outer_index, facts) == 0 && facts.master == made.host_index);
}

bool is_private_link_open(const link_workshop &workshop, const private_link &made) {
  link_facts outer;
  return made.outer_index == 0 ||
         (ask_link(workshop.host_socket, made.outer_index, outer) == 0 && outer.port_state == BR_STATE_FORWARDING);
}

void remove_orphaned_links(int host_socket, const interface_name &host_name) {
  for (unsigned number = 0; number < most_outer_links; ++number) {
    link_facts facts;
    process_identity maker;
    process_identity living{};
    interface_name made_for;
    if (ask_link(host_socket, outer_name(number).data(), facts) != 0 ||
        !read_outer_alias(facts.alias.data(), maker, made_for) || std::strcmp(made_for.data(), host_name.data()) != 0) {
      continue;
    }
    if (!identify_process(maker.pid, living) || living.start_ticks != maker.start_ticks) {
      say("removing the link %s, which an earlier tarnwick-run has left", facts.name.data());
      delete_link(host_socket, facts.index);
    }
  }
}

#include "igmp/igmp_membership.h"

#include "core/group_mapping.h"
#include "core/index_table.h"
#include "igmp/igmp_forwarding.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_napt.h"

#include <cerrno>
#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>

// The steps of each operation carry its name in the log.
#define ADD_HERE IGMP_STEP_OF("igmp_proxy_add_membership")
#define DROP_HERE IGMP_STEP_OF("igmp_proxy_drop_membership")

#define MAPPED_TEXT(request) ADDRESS_TEXT(from_in6_addr((request).mf6cc_mcastgrp.sin6_addr))

namespace {

// A membership upstream: the socket that holds it, how it is asked for, and for what.
template <typename record> struct upstream_membership {
  int socket;
  int level;
  int add_option;
  int drop_option;
  record request;
};

template <typename record> bool ask_kernel(const upstream_membership<record> &membership, int option) {
  return setsockopt(membership.socket, membership.level, option, &membership.request, sizeof(record)) == 0;
}

template <typename record> bool join(const upstream_membership<record> &membership) {
  return ask_kernel(membership, membership.add_option);
}

template <typename record> bool leave(const upstream_membership<record> &membership) {
  return ask_kernel(membership, membership.drop_option);
}

// After a refused join, which is nearly always one that the socket holds already. Whether the second join is accepted
// is not looked at.
template <typename record> void leave_and_join_again(const upstream_membership<record> &membership) {
  if (!leave(membership)) {
    std::puts("can not drop.");
    return;
  }
  join(membership);
}

// Stands in for a missing upstream interface: the kernel refuses requests on its sockets.
constexpr igmp_interface no_interface = [] {
  igmp_interface absent{};
  absent.socket = -1;
  absent.socket6 = -1;
  return absent;
}();

const igmp_interface &upstream() {
  return IgmpRouter.upstream_interface != nullptr ? *IgmpRouter.upstream_interface : no_interface;
}

upstream_membership<ip_mreqn> ipv4_membership(std::uint32_t group) {
  upstream_membership<ip_mreqn> membership{upstream().socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, IP_DROP_MEMBERSHIP, {}};
  membership.request.imr_multiaddr.s_addr = group;
  membership.request.imr_address.s_addr = upstream().address;
  membership.request.imr_ifindex = upstream().ifindex;
  return membership;
}

upstream_membership<ipv6_mreq> ipv6_membership(std::uint32_t group) {
  upstream_membership<ipv6_mreq> membership{
      upstream().socket6, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, IPV6_DROP_MEMBERSHIP, {}};
  fill_v6mreq_group_address(membership.request.ipv6mr_multiaddr, &group);
  membership.request.ipv6mr_interface = static_cast<unsigned int>(natpt_index_for(upstream().ifindex));
  return membership;
}

// The routers' own groups are not translated.
bool has_napt_map(std::uint32_t group) { return group != IgmpAllRouters && group != IgmpV3AllMcr; }

bool join_ipv4(std::uint32_t group) {
  const upstream_membership<ip_mreqn> membership = ipv4_membership(group);
  if (join(membership)) {
    return true;
  }
  log_error(ADD_HERE, "Unable to add membership for Group: %s on upstream Error:%d", IGMP_WORD_TEXT(group), errno);
  leave_and_join_again(membership);
  return false;
}

bool join_ipv6(std::uint32_t group) {
  const upstream_membership<ipv6_mreq> membership = ipv6_membership(group);
  if (join(membership)) {
    return true;
  }
  log_error(ADD_HERE, "Unable to add membership for Group:%s on upstream Error:%d",
            ADDRESS_TEXT(from_in6_addr(membership.request.ipv6mr_multiaddr)), errno);
  leave_and_join_again(membership);
  return false;
}

void add_ipv6_entry(std::uint32_t group, const igmp_outputs &outputs) {
  mf6cctl request = igmp_mf6c_request(group);
  igmp_set_outputs(ADD_HERE, request, outputs);
  log_debug(ADD_HERE, "IgmpRouter.upstream_interface->vif_index = %d", igmp_upstream_vif());
  if (!igmp_add_mf6c(ADD_HERE, request)) {
    log_error(ADD_HERE, "Unable to add MF6C entry for group:%s Error:%d.", MAPPED_TEXT(request), errno);
    return;
  }
  if (has_napt_map(group)) {
    add_napt_map(group);
  }
}

void rewrite_ipv4_entry(std::uint32_t group, const igmp_outputs &outputs) {
  if (igmp_delete_mfc(DROP_HERE, group) && !igmp_add_mfc(DROP_HERE, group, outputs)) {
    log_error(DROP_HERE, "Updation of MFC entry for group: %s failed.", my_inet_ntoa(&group));
  }
}

void rewrite_ipv6_entry(std::uint32_t group, const igmp_outputs &outputs) {
  mf6cctl request = igmp_mf6c_request(group);
  log_debug(DROP_HERE, "IgmpRouter.upstream_interface->vif_index = %d", igmp_upstream_vif());
  log_debug(DROP_HERE, "Delete from MF6C with address %s group: %s", IGMP_WORD_TEXT(group), MAPPED_TEXT(request));
  if (!igmp_delete_mf6c(request)) {
    log_error(DROP_HERE, "Unable to del MF6C entry for group:%s Error:%d.", MAPPED_TEXT(request), errno);
    return;
  }
  igmp_set_outputs(DROP_HERE, request, outputs);
  if (!igmp_add_mf6c(DROP_HERE, request)) {
    log_error(DROP_HERE, "Updation of MFC entry for group:%s failed. Error:%d.", MAPPED_TEXT(request), errno);
  }
}

void leave_ipv4(std::uint32_t group) {
  log_debug(DROP_HERE, "Drop membership for Group: %s on upstream", IGMP_WORD_TEXT(group));
  if (!leave(ipv4_membership(group))) {
    log_error(DROP_HERE, "Unable to drop membership for Group: %s on upstream Error:%d", IGMP_WORD_TEXT(group), errno);
    return;
  }
  igmp_delete_mfc(DROP_HERE, group);
}

void leave_ipv6(std::uint32_t group) {
  const upstream_membership<ipv6_mreq> membership = ipv6_membership(group);
  if (!leave(membership)) {
    log_error(DROP_HERE, "Unable to drop membership for Group: %s on upstream Error:%d",
              ADDRESS_TEXT(from_in6_addr(membership.request.ipv6mr_multiaddr)), errno);
    return;
  }
  const mf6cctl request = igmp_mf6c_request(group);
  log_debug(DROP_HERE, "Delete from MF6C with address: %s group: %s", IGMP_WORD_TEXT(group), MAPPED_TEXT(request));
  if (!igmp_delete_mf6c(request)) {
    log_error(DROP_HERE, "Unable to del MF6C entry for group:%s Error:%d", IGMP_WORD_TEXT(group), errno);
    return;
  }
  if (has_napt_map(group)) {
    del_napt_map(group);
  }
}

} // namespace

void igmp_proxy_add_membership(const igmp_group *group) {
  const std::uint32_t address = group->group;
  if ((ProxyMode == PROXY_MODE_4TO4 && !join_ipv4(address)) || (ProxyMode == PROXY_MODE_4TO6 && !join_ipv6(address))) {
    return;
  }
  const igmp_outputs outputs = igmp_collect_outputs(IGMP_HERE, address, igmp_outputs_purpose::add_entry);
  if (ProxyMode == PROXY_MODE_4TO4 && !igmp_add_mfc(IGMP_HERE, address, outputs)) {
    log_error(IGMP_HERE, "Unable to add MFC entry for group: %s.", my_inet_ntoa(&address));
  } else if (ProxyMode == PROXY_MODE_4TO6) {
    add_ipv6_entry(address, outputs);
  }
}

void igmp_proxy_drop_membership(const igmp_group *group) {
  const std::uint32_t address = group->group;
  const igmp_outputs others = igmp_collect_outputs(IGMP_HERE, address, igmp_outputs_purpose::drop_membership);
  if (ProxyMode == PROXY_MODE_4TO4) {
    others.is_wanted ? rewrite_ipv4_entry(address, others) : leave_ipv4(address);
  } else if (ProxyMode == PROXY_MODE_4TO6) {
    others.is_wanted ? rewrite_ipv6_entry(address, others) : leave_ipv6(address);
  }
}

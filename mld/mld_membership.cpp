#include "mld/mld_membership.h"

#include "mld/mld_forwarding.h"
#include "mld/mld_group.h"
#include "mld/mld_options.h"

#include <cstring>

static_assert(sizeof(ipv6_mreq) == 20);

namespace {

// Descriptor of the socket that holds the upstream memberships; -1 is refused by the kernel.
int upstream_socket() { return MldRouter.upstream_interface != nullptr ? MldRouter.upstream_interface->socket : -1; }

std::uint32_t upstream_ifindex() {
  return MldRouter.upstream_interface != nullptr ? MldRouter.upstream_interface->ifindex : 0;
}

std::uint32_t upstream_vif_index() {
  return MldRouter.upstream_interface != nullptr ? MldRouter.upstream_interface->vif_index : 0;
}

ipv6_mreq membership_request(const ipv6_address &group) {
  ipv6_mreq request{};
  request.ipv6mr_multiaddr = to_in6_addr(group);
  request.ipv6mr_interface = upstream_ifindex();
  return request;
}

void write_socket_address(sockaddr_storage &storage, const ipv6_address &address) {
  sockaddr_in6 socket_address{};
  socket_address.sin6_family = AF_INET6;
  socket_address.sin6_addr = to_in6_addr(address);
  std::memcpy(&storage, &socket_address, sizeof(socket_address));
}

group_source_req source_request(const ipv6_address &group, const ipv6_address &source) {
  group_source_req request{};
  request.gsr_interface = upstream_ifindex();
  write_socket_address(request.gsr_group, group);
  write_socket_address(request.gsr_source, source);
  return request;
}

bool change_membership(const kernel_option &option, const ipv6_mreq &request) {
  return setsockopt(upstream_socket(), option.level, option.number, &request, sizeof(request)) == 0;
}

// A refused join is nearly always one that the socket holds already: leaving and joining again refreshes it.
bool join_upstream(log_site site, const ipv6_mreq &request) {
  if (change_membership(MLD_OPTION_IPV6_ADD_MEMBERSHIP, request)) {
    return true;
  }
  log_request_failed(site, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
  if (!change_membership(MLD_OPTION_IPV6_DROP_MEMBERSHIP, request)) {
    log_request_failed(site, MLD_OPTION_IPV6_DROP_MEMBERSHIP);
    return false;
  }
  // Says ADD although the drop went through: log watchers count this line as the start of a refresh.
  log_request_done(site, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
  if (!change_membership(MLD_OPTION_IPV6_ADD_MEMBERSHIP, request)) {
    log_request_failed(site, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
    return false;
  }
  return true;
}

// Writes the group over the start of the socket address instead of into its address field. The router's own kernel
// takes it so; a mainline kernel refuses nearly every such request, and the interface that lost the group goes on
// receiving until the entry is replaced.
void place_group_for_rewrite(mf6cctl &request, const ipv6_address &group) {
  request.mf6cc_mcastgrp = sockaddr_in6{};
  std::memcpy(&request.mf6cc_mcastgrp, group.data(), group.size());
}

void rewrite_entry(log_site site, const ipv6_address &group, const mld_outputs &oifs) {
  mf6cctl request = mld_mfc_request(In6AddrAny, In6AddrAny);
  place_group_for_rewrite(request, group);
  kernel_request(site, request_log::both, MldRouter.socket, MLD_OPTION_MRT6_DEL_MFC, request);
  mld_set_outputs(request, oifs);
  for (std::size_t i = 0; i < oifs.size(); ++i) {
    if (oifs[i] != 0) {
      log_debug(site, "idx = %d, oifs_ttl[idx] = %d", static_cast<int>(i), oifs[i]);
    }
  }
  const int parent = static_cast<int>(upstream_vif_index());
  log_debug(site, "MldRouter.upstream_interface->vif_index = %d", parent);
  log_debug(site, "Add to MF6C with address %s, parent %d",
            ADDRESS_TEXT(from_in6_addr(request.mf6cc_mcastgrp.sin6_addr)), parent);
  kernel_request(site, request_log::both, MldRouter.socket, MLD_OPTION_MRT6_ADD_MFC, request);
}

// The (::, G) entry is not deleted: it stays in the kernel until MRT6_DONE, and a stream that still arrives goes on.
void leave_upstream(log_site site, mld_group *group) {
  kernel_request(site, request_log::both, upstream_socket(), MLD_OPTION_IPV6_DROP_MEMBERSHIP,
                 membership_request(group->group));
  for (const mld_source &slot : mld_sources(group)) {
    mld_delete_mfc(site, slot.address, group->group);
  }
}

// Blocks a source that is being taken back from blocked to wanted, before it is joined.
void block_before_join(log_site site, mld_group *group, const ipv6_address &source) {
  for (const mld_source &slot : mld_sources(group)) {
    if (slot.address == source && slot.forward == 0) {
      mld_block_source(site, group->group, source);
    }
  }
}

} // namespace

void mld_proxy_add_membership(const mld_group *group) {
  if (!join_upstream(MLD_HERE, membership_request(group->group))) {
    return;
  }
  log_request_done(MLD_HERE, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
  mf6cctl request = mld_mfc_request(In6AddrAny, group->group);
  mld_set_outputs(request, mld_collect_outputs(MLD_HERE, group, outputs_purpose::add_entry).oifs);
  if (setsockopt(MldRouter.socket, IPPROTO_IPV6, MRT6_ADD_MFC, &request, sizeof(request)) != 0) {
    log_request_failed(MLD_HERE, MLD_OPTION_MRT6_ADD_MFC);
  }
  log_debug(MLD_HERE, "mcastgrp: %s", ADDRESS_TEXT(group->group));
  log_debug(MLD_HERE, "origin:   %s", ADDRESS_TEXT(In6AddrAny));
  log_request_done(MLD_HERE, MLD_OPTION_MRT6_ADD_MFC);
}

void mldv2_add_src_membership(mld_group *group, const ipv6_address &source) {
  if (group->group[0] != IPV6_MULTICAST_FIRST_BYTE) {
    log_error(MLD_HERE, "Group address is not IPv6 multicast address: %s", ADDRESS_TEXT(group->group));
    return;
  }
  log_debug(MLD_HERE, "MldBlock = %d", static_cast<int>(MldBlock));
  if (MldBlock == 0) {
    block_before_join(MLD_HERE, group, source);
  }
  const group_source_req join = source_request(group->group, source);
  if (setsockopt(upstream_socket(), IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP, &join, sizeof(join)) != 0) {
    // A source that is joined already ends here, too: a second interface that wants it gets no output of its own.
    log_error(MLD_HERE, "setsockopt MCAST_JOIN_SOURCE_GROUP fail!!!");
    return;
  }
  log_debug(MLD_HERE, "setsockopt MCAST_JOIN_SOURCE_GROUP");
  mf6cctl request = mld_mfc_request(source, group->group);
  mld_set_outputs(request, mld_collect_outputs(MLD_HERE, group, outputs_purpose::add_entry).oifs);
  if (setsockopt(MldRouter.socket, IPPROTO_IPV6, MRT6_ADD_MFC, &request, sizeof(request)) != 0) {
    log_error(MLD_HERE, "setsockopt: MRT6_ADD_MFC"); // the level alone tells the failure
    return;
  }
  log_request_done(MLD_HERE, MLD_OPTION_MRT6_ADD_MFC);
}

void mld_proxy_drop_membership(mld_group *group) {
  const collected_outputs others = mld_collect_outputs(MLD_HERE, group, outputs_purpose::drop_membership);
  if (others.is_wanted) {
    rewrite_entry(MLD_HERE, group->group, others.oifs);
  } else {
    leave_upstream(MLD_HERE, group);
  }
}

void mld_block_source(log_site site, const ipv6_address &group, const ipv6_address &source) {
  kernel_request(site, request_log::either, upstream_socket(), MLD_OPTION_MCAST_BLOCK_SOURCE,
                 source_request(group, source));
}

bool mld_leave_source(log_site site, request_log style, const ipv6_address &group, const ipv6_address &source) {
  return kernel_request(site, style, upstream_socket(), MLD_OPTION_MCAST_LEAVE_SOURCE_GROUP,
                        source_request(group, source));
}

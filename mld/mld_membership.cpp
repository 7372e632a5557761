#include "mld/mld_membership.h"

#include "mld/mld_forwarding.h"
#include "mld/mld_group.h"
#include "mld/mld_options.h"

#include <cstring>

#define ADD_HERE MLD_STEP_OF("mld_proxy_add_membership")
#define ADD_SOURCE_HERE MLD_STEP_OF("mldv2_add_src_membership")
#define DROP_HERE MLD_STEP_OF("mld_proxy_drop_membership")

static_assert(sizeof(ipv6_mreq) == 20);

namespace {

ipv6_mreq membership_request(const ipv6_address &group) {
  ipv6_mreq request{};
  request.ipv6mr_multiaddr = to_in6_addr(group);
  request.ipv6mr_interface = mld_upstream().ifindex;
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
  request.gsr_interface = mld_upstream().ifindex;
  write_socket_address(request.gsr_group, group);
  write_socket_address(request.gsr_source, source);
  return request;
}

bool change_membership(const kernel_option &option, const ipv6_mreq &request) {
  return setsockopt(mld_upstream().socket, option.level, option.number, &request, sizeof(request)) == 0;
}

// A refused join is nearly always one that the socket holds already: leaving and joining again refreshes it.
bool join_upstream(const ipv6_mreq &request) {
  if (change_membership(MLD_OPTION_IPV6_ADD_MEMBERSHIP, request)) {
    return true;
  }
  log_request_failed(ADD_HERE, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
  if (!change_membership(MLD_OPTION_IPV6_DROP_MEMBERSHIP, request)) {
    log_request_failed(ADD_HERE, MLD_OPTION_IPV6_DROP_MEMBERSHIP);
    return false;
  }
  // Says ADD although it is the drop that went through; kept for compatibility.
  log_request_done(ADD_HERE, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
  if (!change_membership(MLD_OPTION_IPV6_ADD_MEMBERSHIP, request)) {
    log_request_failed(ADD_HERE, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
    return false;
  }
  return true;
}

// Why outputs are collected; decides what each interface that has the group leaves in the log.
enum class outputs_purpose { add_entry, drop_membership };

struct collected_outputs {
  mld_outputs outputs;
  bool is_wanted; // some downstream interface has the group, be its MIF an output or not
};

// Walks the downstream interfaces that have the group.
collected_outputs collect_outputs(log_site site, const mld_group *group, outputs_purpose purpose) {
  collected_outputs collected{};
  for (const mld_interface *intr : list_records<const mld_interface>(&MldRouter.interfaces)) {
    if (intr->role == MLD_ROLE_UPSTREAM || mld_find_group(intr, group->group) == nullptr) {
      continue;
    }
    if (purpose == outputs_purpose::add_entry) {
      log_debug(site, "MFC Entry will be created for iface:%s.", intr->name.data());
    } else {
      log_debug(site, "Group %s on interface %s still there. Not dropping.", ADDRESS_TEXT(group->group),
                intr->name.data());
    }
    collected.is_wanted = true;
    mld_set_output(collected.outputs, intr->vif_index);
  }
  return collected;
}

// Only the entries of the group's own slots go. Where no slot stands for every source, (::, G) stays until MRT6_DONE.
void leave_upstream(mld_group *group) {
  kernel_request(DROP_HERE, request_log::both, mld_upstream().socket, MLD_OPTION_IPV6_DROP_MEMBERSHIP,
                 membership_request(group->group));
  for (const mld_source &slot : mld_sources(group)) {
    mld_delete_entry(DROP_HERE, slot.address, group->group);
  }
}

// Blocks a source that is being taken back from blocked to wanted, before it is joined.
void block_before_join(mld_group *group, const ipv6_address &source) {
  for (const mld_source &slot : mld_sources(group)) {
    if (slot.address == source && slot.forward == 0) {
      mld_block_source(ADD_SOURCE_HERE, group->group, source);
    }
  }
}

} // namespace

void mld_proxy_add_membership(const mld_group *group) {
  if (!join_upstream(membership_request(group->group))) {
    return;
  }
  log_request_done(MLD_HERE, MLD_OPTION_IPV6_ADD_MEMBERSHIP);
  const collected_outputs collected = collect_outputs(MLD_HERE, group, outputs_purpose::add_entry);
  if (!mld_add_entry_unlogged(In6AddrAny, group->group, collected.outputs)) {
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
  log_debug(MLD_HERE, "MldBlock = %d", to_int32(MldBlock));
  if (MldBlock == 0) {
    block_before_join(group, source);
  }
  const group_source_req join = source_request(group->group, source);
  if (setsockopt(mld_upstream().socket, IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP, &join, sizeof(join)) != 0) {
    // A source that is joined already ends here, too: a second interface that wants it gets no output of its own.
    log_error(MLD_HERE, "setsockopt MCAST_JOIN_SOURCE_GROUP fail!!!");
    return;
  }
  log_debug(MLD_HERE, "setsockopt MCAST_JOIN_SOURCE_GROUP");
  const collected_outputs collected = collect_outputs(MLD_HERE, group, outputs_purpose::add_entry);
  if (!mld_add_entry_unlogged(source, group->group, collected.outputs)) {
    log_error(MLD_HERE, "setsockopt: MRT6_ADD_MFC"); // the level alone tells the failure
    return;
  }
  log_request_done(MLD_HERE, MLD_OPTION_MRT6_ADD_MFC);
}

void mld_proxy_drop_membership(mld_group *group) {
  const collected_outputs others = collect_outputs(MLD_HERE, group, outputs_purpose::drop_membership);
  if (others.is_wanted) {
    mld_rewrite_entry(MLD_HERE, group->group, others.outputs);
  } else {
    leave_upstream(group);
  }
}

void mld_retire_group(mld_group *group) {
  mld_proxy_drop_membership(group);
  mld_release_group(group);
}

void mld_block_source(log_site site, const ipv6_address &group, const ipv6_address &source) {
  kernel_request(site, request_log::either, mld_upstream().socket, MLD_OPTION_MCAST_BLOCK_SOURCE,
                 source_request(group, source));
}

bool mld_leave_source(log_site site, request_log style, const ipv6_address &group, const ipv6_address &source) {
  return kernel_request(site, style, mld_upstream().socket, MLD_OPTION_MCAST_LEAVE_SOURCE_GROUP,
                        source_request(group, source));
}

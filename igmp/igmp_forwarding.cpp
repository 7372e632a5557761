#include "igmp/igmp_forwarding.h"

#include "core/group_mapping.h"
#include "core/index_table.h"
#include "igmp/igmp_group.h"

#include <algorithm>
#include <sys/socket.h>

// The kernel takes a request of its own record's size and no other.
static_assert(sizeof(mfcctl) == 60);
static_assert(sizeof(mf6cctl) == 92);
static_assert(INDEX_TABLE_SLOTS == MAXVIFS);

namespace {

constexpr std::uint8_t ttl_no_forwarding = 255;
constexpr std::uint8_t ttl_forwarding = 1;

template <std::size_t size>
void mark(std::array<std::uint8_t, size> &table, std::int32_t position, std::uint8_t value) {
  if (position >= 0 && position < static_cast<std::int32_t>(size)) {
    table[static_cast<std::size_t>(position)] = value;
  }
}

// The interface's slot in the device index table, after the lines about the interface that `purpose` asks for.
std::int32_t find_slot(log_site site, const igmp_interface *intr, std::uint32_t group, igmp_outputs_purpose purpose) {
  if (purpose == igmp_outputs_purpose::drop_membership) {
    log_debug(site, "Group %s on Interface: %s still there. Not dropping.", my_inet_ntoa(&group), intr->name.data());
    return find_used_index(intr->vif_index);
  }
  log_debug(site, "MFC Entry will be created for iface:%s.", intr->name.data());
  const std::int32_t slot = find_used_index(intr->vif_index);
  log_debug(site, "index_tmp = %d", slot);
  log_debug(site, "intr->vif_index = %d", intr->vif_index);
  return slot;
}

bool request_mfc(log_site site, int option, const char *name, const mfcctl &request) {
  log_debug(site, "%s: origin=%s, mcastgrp=%s, parent=%d", name, IGMP_WORD_TEXT(request.mfcc_origin.s_addr),
            IGMP_WORD_TEXT(request.mfcc_mcastgrp.s_addr), igmp_upstream_vif());
  return setsockopt(IgmpRouter.socket, IPPROTO_IP, option, &request, sizeof(request)) == 0;
}

bool request_mf6c(int option, const mf6cctl &request) {
  return setsockopt(IgmpRouter.socket, IPPROTO_IPV6, option, &request, sizeof(request)) == 0;
}

} // namespace

igmp_outputs igmp_collect_outputs(log_site site, std::uint32_t group, igmp_outputs_purpose purpose) {
  igmp_outputs collected{};
  collected.oifs_ttl.fill(ttl_no_forwarding);
  for (const igmp_interface *intr : list_records<igmp_interface>(&IgmpRouter.interfaces)) {
    if (intr->role == IGMP_ROLE_UPSTREAM || igmp_find_group(intr, group) == nullptr) {
      continue;
    }
    collected.is_wanted = true;
    mark(collected.oifs_ttl, find_slot(site, intr, group, purpose), ttl_forwarding);
    if (intr->vif_index != LanIndex) { // the translator itself feeds the LAN
      mark(collected.mifs, intr->vif_index, 1);
    }
  }
  return collected;
}

std::int32_t igmp_upstream_vif() {
  return IgmpRouter.upstream_interface != nullptr ? IgmpRouter.upstream_interface->vif_index : 0;
}

std::int32_t igmp_upstream_mif() { return natpt_index_for(igmp_upstream_vif()); }

mfcctl igmp_mfc_request(std::uint32_t group) {
  mfcctl request{};
  request.mfcc_origin.s_addr = InAddrAny;
  request.mfcc_mcastgrp.s_addr = group;
  request.mfcc_parent = static_cast<vifi_t>(igmp_upstream_vif());
  return request;
}

mf6cctl igmp_mf6c_request(std::uint32_t group) {
  mf6cctl request{};
  fill_mf6cctrl_group_address(request, &group);
  request.mf6cc_parent = static_cast<mifi_t>(igmp_upstream_mif());
  return request;
}

void igmp_set_outputs(log_site site, mf6cctl &request, const igmp_outputs &outputs) {
  for (std::uint32_t i = 0; i < outputs.mifs.size(); ++i) {
    if (outputs.mifs[i] != 0) {
      log_debug(site, "idx = %d, oifs_ttl[idx] = %d", static_cast<int>(i), outputs.mifs[i]);
      // As IF_SET does, whose signed shift the sanitizers do not like.
      request.mf6cc_ifset.ifs_bits[i / NIFBITS] |= if_mask{1} << (i % NIFBITS);
    }
  }
}

bool igmp_add_mfc(log_site site, std::uint32_t group, const igmp_outputs &outputs) {
  mfcctl request = igmp_mfc_request(group);
  std::copy(outputs.oifs_ttl.begin(), outputs.oifs_ttl.end(), request.mfcc_ttls);
  return request_mfc(site, MRT_ADD_MFC, "MRT_ADD_MFC", request);
}

bool igmp_delete_mfc(log_site site, std::uint32_t group) {
  if (request_mfc(site, MRT_DEL_MFC, "MRT_DEL_MFC", igmp_mfc_request(group))) {
    return true;
  }
  log_error(site, "Unable to del MFC entry for group: %s", IGMP_WORD_TEXT(group));
  return false;
}

bool igmp_add_mf6c(log_site site, const mf6cctl &request) {
  log_debug(site, "Add to MF6C with address %s, parent %d",
            ADDRESS_TEXT(from_in6_addr(request.mf6cc_mcastgrp.sin6_addr)), igmp_upstream_mif());
  return request_mf6c(MRT6_ADD_MFC, request);
}

bool igmp_delete_mf6c(const mf6cctl &request) { return request_mf6c(MRT6_DEL_MFC, request); }

#include "mld/mld_forwarding.h"

#include "mld/mld_group.h"
#include "mld/mld_options.h"

static_assert(sizeof(mf6cctl) == 92);

collected_outputs mld_collect_outputs(log_site site, const mld_group *group, outputs_purpose purpose) {
  collected_outputs collected{};
  for (const mld_interface *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
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
    if (intr->vif_index < collected.oifs.size()) {
      collected.oifs[intr->vif_index] = 1;
    }
  }
  return collected;
}

mf6cctl mld_mfc_request(const ipv6_address &origin, const ipv6_address &group) {
  mf6cctl request{};
  request.mf6cc_origin.sin6_addr = to_in6_addr(origin);
  request.mf6cc_mcastgrp.sin6_addr = to_in6_addr(group);
  if (MldRouter.upstream_interface != nullptr) {
    request.mf6cc_parent = static_cast<mifi_t>(MldRouter.upstream_interface->vif_index);
  }
  return request;
}

void mld_set_outputs(mf6cctl &request, const mld_outputs &oifs) {
  for (std::uint32_t i = 0; i < oifs.size(); ++i) {
    if (oifs[i] != 0) {
      mld_set_output(request, i);
    }
  }
}

void mld_set_output(mf6cctl &request, std::uint32_t vif_index) {
  if (vif_index < MAXMIFS) {
    // As IF_SET does, whose signed shift the sanitizers do not like.
    request.mf6cc_ifset.ifs_bits[vif_index / NIFBITS] |= if_mask{1} << (vif_index % NIFBITS);
  }
}

void mld_delete_mfc(log_site site, const ipv6_address &origin, const ipv6_address &group) {
  const mf6cctl request = mld_mfc_request(origin, group);
  kernel_request(site, request_log::both, MldRouter.socket, MLD_OPTION_MRT6_DEL_MFC, request);
}

#include "mld/mld_forwarding.h"

#include "mld/mld_options.h"

#include <cstring>

static_assert(sizeof(mf6cctl) == 92);

namespace {

void write_outputs(mf6cctl &request, const mld_outputs &outputs) {
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    if (outputs[i] != 0) {
      // As IF_SET does, whose signed shift the sanitizers do not like.
      request.mf6cc_ifset.ifs_bits[i / NIFBITS] |= if_mask{1} << (i % NIFBITS);
    }
  }
}

// The address families stay 0; mainline kernels do not look at them.
mf6cctl entry_request(const ipv6_address &origin, const ipv6_address &group, const mld_outputs &outputs) {
  mf6cctl request{};
  request.mf6cc_origin.sin6_addr = to_in6_addr(origin);
  request.mf6cc_mcastgrp.sin6_addr = to_in6_addr(group);
  request.mf6cc_parent = static_cast<mifi_t>(mld_upstream().vif_index);
  write_outputs(request, outputs);
  return request;
}

bool request_entry(log_site site, request_log style, const kernel_option &option, const mf6cctl &request) {
  return kernel_request(site, style, MldRouter.socket, option, request);
}

// Writes the group over the start of the socket address instead of into its address field; kept for compatibility.
void place_group_for_rewrite(mf6cctl &request, const ipv6_address &group) {
  request.mf6cc_mcastgrp = sockaddr_in6{};
  std::memcpy(&request.mf6cc_mcastgrp, group.data(), group.size());
}

} // namespace

void mld_set_output(mld_outputs &outputs, std::uint32_t vif_index) {
  if (vif_index < outputs.size()) {
    outputs[vif_index] = 1;
  }
}

bool mld_add_entry(log_site site, const ipv6_address &origin, const ipv6_address &group, const mld_outputs &outputs) {
  return request_entry(site, request_log::either, MLD_OPTION_MRT6_ADD_MFC, entry_request(origin, group, outputs));
}

bool mld_add_entry_unlogged(const ipv6_address &origin, const ipv6_address &group, const mld_outputs &outputs) {
  const mf6cctl request = entry_request(origin, group, outputs);
  return setsockopt(MldRouter.socket, IPPROTO_IPV6, MRT6_ADD_MFC, &request, sizeof(request)) == 0;
}

void mld_delete_entry(log_site site, const ipv6_address &origin, const ipv6_address &group) {
  request_entry(site, request_log::both, MLD_OPTION_MRT6_DEL_MFC, entry_request(origin, group, {}));
}

void mld_rewrite_entry(log_site site, const ipv6_address &group, const mld_outputs &outputs) {
  mf6cctl request = entry_request(In6AddrAny, In6AddrAny, {});
  place_group_for_rewrite(request, group);
  request_entry(site, request_log::both, MLD_OPTION_MRT6_DEL_MFC, request);
  write_outputs(request, outputs);
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    if (outputs[i] != 0) {
      log_debug(site, "idx = %d, oifs_ttl[idx] = %d", to_int32(i), outputs[i]);
    }
  }
  const int parent = to_int32(mld_upstream().vif_index);
  log_debug(site, "MldRouter.upstream_interface->vif_index = %d", parent);
  log_debug(site, "Add to MF6C with address %s, parent %d",
            ADDRESS_TEXT(from_in6_addr(request.mf6cc_mcastgrp.sin6_addr)), parent);
  request_entry(site, request_log::both, MLD_OPTION_MRT6_ADD_MFC, request);
}

#include "core/group_mapping.h"

#include "core/address.h"
#include "core/settings.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t prefix_bytes = 12;
constexpr std::uint32_t last_octet = 0xff;

ipv6_address join_prefix_and_word(const ipv6_address &prefix, std::uint32_t word) {
  ipv6_address mapped;
  std::copy_n(prefix.begin(), prefix_bytes, mapped.begin());
  std::memcpy(&mapped[prefix_bytes], &word, sizeof(word));
  return mapped;
}

// The number of a routers' group is stored in native order, as the group words are: a big-endian router joins ff02::2
// and ff02::16, a little-endian one ff02::200:0 and ff02::1600:0.
ipv6_address map_group(std::uint32_t group) {
  if (group == IgmpAllRouters || group == IgmpV3AllMcr) {
    return join_prefix_and_word(IPv6McastPrefix, group & last_octet);
  }
  return join_prefix_and_word(MldPrefix, group);
}

} // namespace

void fill_v6mreq_group_address(in6_addr &address, const std::uint32_t *group) {
  address = to_in6_addr(map_group(*group));
}

void fill_mf6cctrl_group_address(mf6cctl &request, const std::uint32_t *group) {
  request.mf6cc_mcastgrp.sin6_addr = to_in6_addr(map_group(*group));
}

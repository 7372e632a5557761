#include "assist/group_entry.h"

#include <linux/mroute6.h>
#include <sys/socket.h>

namespace {

static_assert(MAXMIFS == sizeof(mif_set) * 8 && MAXMIFS <= NIFBITS);

bool request(int socket, int option, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent,
             mif_set outputs) {
  mf6cctl entry{};
  entry.mf6cc_origin.sin6_family = AF_INET6;
  entry.mf6cc_origin.sin6_addr = to_in6_addr(origin);
  entry.mf6cc_mcastgrp.sin6_family = AF_INET6;
  entry.mf6cc_mcastgrp.sin6_addr = to_in6_addr(group);
  entry.mf6cc_parent = static_cast<mifi_t>(parent);
  entry.mf6cc_ifset.ifs_bits[0] = outputs; // 32 MIFs fill the first word
  return setsockopt(socket, IPPROTO_IPV6, option, &entry, sizeof(entry)) == 0;
}

} // namespace

bool put_newest_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent,
                      mif_set outputs) {
  return request(socket, MRT6_ADD_MFC, origin, group, parent, outputs);
}

bool put_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent,
               mif_set outputs) {
  return request(socket, MRT6_ADD_MFC_PROXY, origin, group, parent, outputs);
}

bool put_shield(int socket, const ipv6_address &group) {
  return put_entry(socket, In6AddrAny, group, SHIELD_PARENT, 0);
}

bool delete_newest_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent) {
  return request(socket, MRT6_DEL_MFC, origin, group, parent, 0);
}

bool delete_entry(int socket, const ipv6_address &origin, const ipv6_address &group, std::uint32_t parent) {
  return request(socket, MRT6_DEL_MFC_PROXY, origin, group, parent, 0);
}

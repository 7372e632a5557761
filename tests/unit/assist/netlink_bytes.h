// Builds netlink bytes as the kernel sends them.
#pragma once

#include "assist/notification.h"
#include "tests/support/netlink_bytes.h"

#include <linux/if_link.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

inline byte_vector link_message(int type, std::uint32_t index, const std::string &name, int family = AF_UNSPEC) {
  ifinfomsg header{};
  header.ifi_family = static_cast<unsigned char>(family);
  header.ifi_index = static_cast<int>(index);
  return message(type, bytes_of(header) + attribute(IFLA_MTU, bytes_of(1500)) +
                           attribute(IFLA_IFNAME, text_bytes(name)) + attribute(0x3fff, text_bytes("unknown")));
}

inline byte_vector netconf_message(std::uint32_t index, std::int32_t mc_forwarding, int type = RTM_NEWNETCONF,
                                   int family = AF_INET6) {
  const netconfmsg header{static_cast<std::uint8_t>(family)};
  byte_vector payload =
      bytes_of(header) + attribute(NETCONFA_IFINDEX, bytes_of(index)) + attribute(NETCONFA_FORWARDING, bytes_of(1));
  if (mc_forwarding != MC_FORWARDING_UNKNOWN) {
    payload = payload + attribute(NETCONFA_MC_FORWARDING, bytes_of(mc_forwarding));
  }
  payload = payload + attribute(0x3fff, byte_vector(200)); // what later kernels may add
  return message(type, payload);
}

inline byte_vector hop(std::uint32_t index) {
  rtnexthop header{};
  header.rtnh_len = sizeof(header);
  header.rtnh_ifindex = static_cast<int>(index);
  return bytes_of(header);
}

// `input` 0: no such attribute, as for a parent that is not registered.
inline byte_vector entry_message(int type, std::uint32_t input, const std::vector<std::uint32_t> &outputs,
                                 const in6_addr &origin = in6addr_any, const in6_addr &group = in6addr_any) {
  rtmsg header{};
  header.rtm_family = RTNL_FAMILY_IP6MR;
  byte_vector hops;
  for (const std::uint32_t output : outputs) {
    hops = hops + hop(output);
  }
  byte_vector payload = bytes_of(header) + attribute(RTA_TABLE, bytes_of(RT_TABLE_MAIN)) +
                        attribute(RTA_SRC, bytes_of(origin)) + attribute(RTA_DST, bytes_of(group));
  if (input != 0) {
    payload = payload + attribute(RTA_IIF, bytes_of(input));
  }
  return message(type, payload + attribute(RTA_MULTIPATH | NLA_F_NESTED, hops));
}

#include "assist/notification.h"

#include <algorithm>
#include <linux/if_link.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// A name that does not fit or lacks its end stays empty; no watched interface has that.
void read_link_name(netlink_bytes payload, interface_name &name) {
  const auto end = std::find(payload.begin(), payload.end(), std::byte{0});
  const std::size_t length = static_cast<std::size_t>(end - payload.begin());
  if (end != payload.end() && length < name.size()) {
    std::memcpy(name.data(), payload.data(), length);
  }
}

// A bridge also tells of its ports by link messages, with family AF_BRIDGE; "gone" means there that the port has left
// the bridge.
void read_link(netlink_bytes bytes, notification_kind kind, notification &told) {
  ifinfomsg header;
  if (!take_record(bytes, header) || header.ifi_family != AF_UNSPEC) {
    return;
  }
  told.kind = kind;
  told.index = static_cast<std::uint32_t>(header.ifi_index);
  for (netlink_attribute attribute; next_attribute(bytes, attribute);) {
    if (attribute.type == IFLA_IFNAME) {
      read_link_name(attribute.payload, told.name);
    }
  }
}

void read_netconf(netlink_bytes bytes, notification_kind kind, notification &told) {
  netconfmsg header;
  if (!take_record(bytes, header) || header.ncm_family != AF_INET6) {
    return;
  }
  for (netlink_attribute attribute; next_attribute(bytes, attribute);) {
    if (attribute.type == NETCONFA_IFINDEX && read_record(attribute.payload, told.index)) {
      told.kind = kind;
    } else if (attribute.type == NETCONFA_MC_FORWARDING) {
      read_record(attribute.payload, told.mc_forwarding);
    }
  }
}

void read_outputs(netlink_bytes hops, notification &told) {
  for (std::uint32_t index = 0; next_hop_index(hops, index);) {
    told.outputs |= output_bit(index);
    ++told.output_count;
  }
}

void read_entry(netlink_bytes bytes, notification_kind kind, notification &told) {
  rtmsg header;
  if (!take_record(bytes, header) || header.rtm_family != RTNL_FAMILY_IP6MR) {
    return;
  }
  told.is_static = header.rtm_protocol == RTPROT_STATIC;
  bool has_origin = false;
  bool has_group = false;
  for (netlink_attribute attribute; next_attribute(bytes, attribute);) {
    switch (attribute.type) {
    case RTA_SRC:
      has_origin = read_record(attribute.payload, told.origin);
      break;
    case RTA_DST:
      has_group = read_record(attribute.payload, told.group);
      break;
    case RTA_IIF:
      read_record(attribute.payload, told.input);
      break;
    case RTA_MULTIPATH:
      read_outputs(attribute.payload, told);
      break;
    default:
      break;
    }
  }
  told.kind = has_origin && has_group ? kind : notification_kind::other;
}

} // namespace

bool next_notification(netlink_bytes &rest, notification &told) {
  told = {};
  told.mc_forwarding = MC_FORWARDING_NOT_TOLD;
  netlink_message message;
  if (!next_message(rest, message)) {
    return false;
  }
  switch (message.type) {
  case RTM_NEWLINK:
    read_link(message.payload, notification_kind::link_there, told);
    break;
  case RTM_DELLINK:
    read_link(message.payload, notification_kind::link_gone, told);
    break;
  case RTM_NEWNETCONF:
    read_netconf(message.payload, notification_kind::ipv6_there, told);
    break;
  case RTM_DELNETCONF:
    read_netconf(message.payload, notification_kind::ipv6_gone, told);
    break;
  case RTM_NEWROUTE:
    read_entry(message.payload, notification_kind::entry_there, told);
    break;
  case RTM_DELROUTE:
    read_entry(message.payload, notification_kind::entry_gone, told);
    break;
  default:
    break;
  }
  return true;
}

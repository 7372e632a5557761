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
  const auto end = std::ranges::find(payload, std::byte{0});
  const std::size_t length = static_cast<std::size_t>(end - payload.begin());
  if (end != payload.end() && length < name.size()) {
    std::memcpy(name.data(), payload.data(), length);
  }
}

// A bridge also announces its ports by link messages, with family AF_BRIDGE; "gone" means there that the port has left
// the bridge.
void read_link(netlink_bytes bytes, notification_kind kind, notification &event) {
  ifinfomsg header;
  if (!take_record(bytes, header) || header.ifi_family != AF_UNSPEC) {
    return;
  }
  event.kind = kind;
  event.index = static_cast<std::uint32_t>(header.ifi_index);
  for (netlink_attribute attribute; next_attribute(bytes, attribute);) {
    if (attribute.type == IFLA_IFNAME) {
      read_link_name(attribute.payload, event.name);
    }
  }
}

void read_netconf(netlink_bytes bytes, notification_kind kind, notification &event) {
  netconfmsg header;
  if (!take_record(bytes, header) || header.ncm_family != AF_INET6) {
    return;
  }
  for (netlink_attribute attribute; next_attribute(bytes, attribute);) {
    if (attribute.type == NETCONFA_IFINDEX && read_record(attribute.payload, event.index)) {
      event.kind = kind;
    } else if (attribute.type == NETCONFA_MC_FORWARDING) {
      read_record(attribute.payload, event.mc_forwarding);
    }
  }
}

void read_outputs(netlink_bytes hops, notification &event) {
  for (std::uint32_t index = 0; next_hop_index(hops, index);) {
    event.outputs |= output_bit(index);
    ++event.output_count;
  }
}

void read_entry(netlink_bytes bytes, notification_kind kind, notification &event) {
  rtmsg header;
  if (!take_record(bytes, header) || header.rtm_family != RTNL_FAMILY_IP6MR) {
    return;
  }
  event.is_static = header.rtm_protocol == RTPROT_STATIC;
  bool has_origin = false;
  bool has_group = false;
  for (netlink_attribute attribute; next_attribute(bytes, attribute);) {
    switch (attribute.type) {
    case RTA_SRC:
      has_origin = read_record(attribute.payload, event.origin);
      break;
    case RTA_DST:
      has_group = read_record(attribute.payload, event.group);
      break;
    case RTA_IIF:
      read_record(attribute.payload, event.input);
      break;
    case RTA_MULTIPATH:
      read_outputs(attribute.payload, event);
      break;
    default:
      break;
    }
  }
  event.kind = has_origin && has_group ? kind : notification_kind::other;
}

} // namespace

bool next_notification(netlink_bytes &rest, notification &event) {
  event = {};
  event.mc_forwarding = MC_FORWARDING_UNKNOWN;
  netlink_message message;
  if (!next_message(rest, message)) {
    return false;
  }
  switch (message.type) {
  case RTM_NEWLINK:
    read_link(message.payload, notification_kind::link_there, event);
    break;
  case RTM_DELLINK:
    read_link(message.payload, notification_kind::link_gone, event);
    break;
  case RTM_NEWNETCONF:
    read_netconf(message.payload, notification_kind::ipv6_there, event);
    break;
  case RTM_DELNETCONF:
    read_netconf(message.payload, notification_kind::ipv6_gone, event);
    break;
  case RTM_NEWROUTE:
    read_entry(message.payload, notification_kind::entry_there, event);
    break;
  case RTM_DELROUTE:
    read_entry(message.payload, notification_kind::entry_gone, event);
    break;
  default:
    break;
  }
  return true;
}

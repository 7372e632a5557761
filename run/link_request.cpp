#include "run/link_request.h"

#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/socket.h>

namespace {

ifinfomsg link_header(std::uint32_t index, int family = AF_UNSPEC) {
  ifinfomsg header{};
  header.ifi_family = static_cast<unsigned char>(family);
  header.ifi_index = static_cast<int>(index);
  return header;
}

void begin_change(netlink_request &request, std::uint32_t index) {
  begin_request(request, RTM_NEWLINK, 0);
  append_record(request, link_header(index));
}

void begin_creation(netlink_request &request) {
  begin_request(request, RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
  append_record(request, link_header(0));
}

void append_place(netlink_request &request, const inner_link &link) {
  append_text(request, IFLA_IFNAME, link.name.data());
  append_number(request, IFLA_NET_NS_FD, link.network_namespace);
}

} // namespace

void request_macvlan(netlink_request &request, const inner_link &link, std::uint32_t parent, std::uint32_t mode) {
  begin_creation(request);
  append_place(request, link);
  append_number(request, IFLA_LINK, parent);
  append_number(request, IFLA_ADDRESS, link.address);
  const std::size_t details = open_nest(request, IFLA_LINKINFO);
  append_text(request, IFLA_INFO_KIND, "macvlan");
  const std::size_t data = open_nest(request, IFLA_INFO_DATA);
  append_number(request, IFLA_MACVLAN_MODE, mode);
  close_nest(request, data);
  close_nest(request, details);
}

void request_ipvlan(netlink_request &request, const inner_link &link, std::uint32_t parent) {
  begin_creation(request);
  append_place(request, link);
  append_number(request, IFLA_LINK, parent);
  const std::size_t details = open_nest(request, IFLA_LINKINFO);
  append_text(request, IFLA_INFO_KIND, "ipvlan");
  const std::size_t data = open_nest(request, IFLA_INFO_DATA);
  append_number(request, IFLA_IPVLAN_MODE, std::uint16_t{IPVLAN_MODE_L2});
  close_nest(request, data);
  close_nest(request, details);
}

void request_veth_pair(netlink_request &request, const inner_link &inner, const outer_link &outer) {
  begin_creation(request);
  append_text(request, IFLA_IFNAME, outer.name.data());
  append_number(request, IFLA_ADDRESS, outer.address);
  append_number(request, IFLA_MTU, outer.mtu);
  const std::size_t details = open_nest(request, IFLA_LINKINFO);
  append_text(request, IFLA_INFO_KIND, "veth");
  const std::size_t data = open_nest(request, IFLA_INFO_DATA);
  const std::size_t peer = open_nest(request, VETH_INFO_PEER);
  append_record(request, link_header(0));
  append_place(request, inner);
  append_number(request, IFLA_ADDRESS, inner.address);
  append_number(request, IFLA_MTU, outer.mtu);
  close_nest(request, peer);
  close_nest(request, data);
  close_nest(request, details);
}

void request_alias(netlink_request &request, std::uint32_t index, const char *alias) {
  begin_change(request, index);
  append_text(request, IFLA_IFALIAS, alias);
}

void request_address_mode(netlink_request &request, std::uint32_t index, std::uint8_t mode) {
  begin_change(request, index);
  const std::size_t families = open_nest(request, IFLA_AF_SPEC);
  const std::size_t ipv6 = open_nest(request, AF_INET6);
  append_number(request, IFLA_INET6_ADDR_GEN_MODE, mode);
  close_nest(request, ipv6);
  close_nest(request, families);
}

void request_bridge_port(netlink_request &request, std::uint32_t index, std::uint32_t bridge) {
  begin_change(request, index);
  append_number(request, IFLA_MASTER, bridge);
}

void request_router_port(netlink_request &request, std::uint32_t index) {
  begin_request(request, RTM_SETLINK, 0);
  append_record(request, link_header(index, AF_BRIDGE));
  const std::size_t port = open_nest(request, IFLA_PROTINFO);
  append_number(request, IFLA_BRPORT_MULTICAST_ROUTER, std::uint8_t{MDB_RTR_TYPE_PERM});
  close_nest(request, port);
}

void request_up(netlink_request &request, std::uint32_t index) {
  ifinfomsg header = link_header(index);
  header.ifi_flags = IFF_UP;
  header.ifi_change = IFF_UP;
  begin_request(request, RTM_NEWLINK, 0);
  append_record(request, header);
}

void request_deletion(netlink_request &request, std::uint32_t index) {
  begin_request(request, RTM_DELLINK, 0);
  append_record(request, link_header(index));
}

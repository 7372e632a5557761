#include "run/link_request.h"

#include "tests/support/netlink_bytes.h"

#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>

namespace {

constexpr int namespace_descriptor = 7;
const inner_link up0{{"up0"}, {2, 0, 0, 1, 2, 3}, namespace_descriptor};
const inner_link down0{{"down0"}, {2, 0, 0, 4, 5, 6}, namespace_descriptor};

byte_vector sent(netlink_request &request) {
  const std::span<const std::byte> bytes = finish_request(request);
  return {bytes.begin(), bytes.end()};
}

ifinfomsg link_header(int index, int family = AF_UNSPEC, unsigned flags = 0) {
  ifinfomsg header{};
  header.ifi_family = static_cast<unsigned char>(family);
  header.ifi_index = index;
  header.ifi_flags = flags;
  header.ifi_change = flags;
  return header;
}

byte_vector request_of(int type, int flags, const byte_vector &payload) {
  byte_vector bytes = message(type, payload);
  const auto all_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
  std::memcpy(bytes.data() + offsetof(nlmsghdr, nlmsg_flags), &all_flags, sizeof(all_flags));
  return bytes;
}

byte_vector nest(int type, const byte_vector &attributes) { return attribute(type | NLA_F_NESTED, attributes); }

} // namespace

TEST(link_request, macvlan_is_made_in_the_private_network) {
  netlink_request request;
  request_macvlan(request, up0, 137, MACVLAN_MODE_PRIVATE);
  EXPECT_EQ(
      sent(request),
      request_of(
          RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL,
          bytes_of(link_header(0)) + attribute(IFLA_IFNAME, text_bytes("up0")) +
              attribute(IFLA_NET_NS_FD, bytes_of(namespace_descriptor)) +
              attribute(IFLA_LINK, bytes_of(std::uint32_t{137})) + attribute(IFLA_ADDRESS, bytes_of(up0.address)) +
              nest(IFLA_LINKINFO, attribute(IFLA_INFO_KIND, text_bytes("macvlan")) +
                                      nest(IFLA_INFO_DATA, attribute(IFLA_MACVLAN_MODE, bytes_of(std::uint32_t{1}))))));
}

TEST(link_request, ipvlan_keeps_its_parents_address) {
  netlink_request request;
  request_ipvlan(request, up0, 137);
  EXPECT_EQ(sent(request),
            request_of(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL,
                       bytes_of(link_header(0)) + attribute(IFLA_IFNAME, text_bytes("up0")) +
                           attribute(IFLA_NET_NS_FD, bytes_of(namespace_descriptor)) +
                           attribute(IFLA_LINK, bytes_of(std::uint32_t{137})) +
                           nest(IFLA_LINKINFO,
                                attribute(IFLA_INFO_KIND, text_bytes("ipvlan")) +
                                    nest(IFLA_INFO_DATA, attribute(IFLA_IPVLAN_MODE, bytes_of(std::uint16_t{0}))))));
}

TEST(link_request, pair_has_one_end_on_each_side_and_one_mtu) {
  netlink_request request;
  const ether_address outer_address{0xfe, 0, 0, 4, 5, 6};
  request_veth_pair(request, down0, {{"tarnwick0"}, outer_address, 9000});
  const byte_vector mtu = attribute(IFLA_MTU, bytes_of(std::uint32_t{9000}));
  const byte_vector peer = bytes_of(link_header(0)) + attribute(IFLA_IFNAME, text_bytes("down0")) +
                           attribute(IFLA_NET_NS_FD, bytes_of(namespace_descriptor)) +
                           attribute(IFLA_ADDRESS, bytes_of(down0.address)) + mtu;
  EXPECT_EQ(sent(request), request_of(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL,
                                      bytes_of(link_header(0)) + attribute(IFLA_IFNAME, text_bytes("tarnwick0")) +
                                          attribute(IFLA_ADDRESS, bytes_of(outer_address)) + mtu +
                                          nest(IFLA_LINKINFO, attribute(IFLA_INFO_KIND, text_bytes("veth")) +
                                                                  nest(IFLA_INFO_DATA, nest(VETH_INFO_PEER, peer)))));
}

TEST(link_request, longest_request_fits) {
  netlink_request request;
  const interface_name longest{"fifteen-letters"};
  const inner_link inner{longest, {}, namespace_descriptor};
  request_veth_pair(request, inner, {longest, {}, 9000});
  EXPECT_FALSE(sent(request).empty());
}

TEST(link_request, port_of_a_bridge_has_it_as_master) {
  netlink_request request;
  request_bridge_port(request, 6, 140);
  EXPECT_EQ(sent(request), request_of(RTM_NEWLINK, 0,
                                      bytes_of(link_header(6)) + attribute(IFLA_MASTER, bytes_of(std::uint32_t{140}))));
}

TEST(link_request, router_port_is_one_for_good) {
  netlink_request request;
  request_router_port(request, 6);
  const byte_vector permanent = attribute(IFLA_BRPORT_MULTICAST_ROUTER, bytes_of(std::uint8_t{2}));
  EXPECT_EQ(sent(request),
            request_of(RTM_SETLINK, 0, bytes_of(link_header(6, AF_BRIDGE)) + nest(IFLA_PROTINFO, permanent)));
}

TEST(link_request, address_mode_is_ipv6s_alone) {
  netlink_request request;
  request_address_mode(request, 6, IN6_ADDR_GEN_MODE_NONE);
  const byte_vector none = attribute(IFLA_INET6_ADDR_GEN_MODE, bytes_of(std::uint8_t{1}));
  EXPECT_EQ(sent(request),
            request_of(RTM_NEWLINK, 0, bytes_of(link_header(6)) + nest(IFLA_AF_SPEC, nest(AF_INET6, none))));
}

TEST(link_request, alias_is_a_text) {
  netlink_request request;
  request_alias(request, 6, "tarnwick-run: br-lan");
  EXPECT_EQ(sent(request),
            request_of(RTM_NEWLINK, 0,
                       bytes_of(link_header(6)) + attribute(IFLA_IFALIAS, text_bytes("tarnwick-run: br-lan"))));
}

TEST(link_request, bringing_up_changes_no_other_flag) {
  netlink_request request;
  request_up(request, 6);
  EXPECT_EQ(sent(request), request_of(RTM_NEWLINK, 0, bytes_of(link_header(6, AF_UNSPEC, IFF_UP))));
}

TEST(link_request, deletion_names_the_index) {
  netlink_request request;
  request_deletion(request, 6);
  EXPECT_EQ(sent(request), request_of(RTM_DELLINK, 0, bytes_of(link_header(6))));
}

TEST(netlink_request, what_does_not_fit_makes_it_empty) {
  netlink_request request;
  begin_request(request, RTM_NEWLINK, 0);
  const std::size_t place = open_nest(request, IFLA_LINKINFO);
  append_text(request, IFLA_IFALIAS, std::string(LONGEST_NETLINK_REQUEST, 'a').c_str());
  close_nest(request, place);
  EXPECT_TRUE(finish_request(request).empty());
}

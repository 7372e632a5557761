#include "run/network_choice.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <string>
#include <vector>

namespace {

using texts = std::vector<std::string>;

considered_interface given_interface(const interface_name &name, std::uint32_t index, const char *kind = "") {
  considered_interface given{};
  given.name = name;
  given.is_there = true;
  given.carrier.link.name = name;
  given.carrier.link.index = index;
  given.carrier.link.hardware = ARPHRD_ETHER;
  std::string(kind).copy(given.carrier.link.kind.data(), given.carrier.link.kind.size() - 1);
  return given;
}

considered_host given_host(const considered_interface &upstream, const considered_interface &downstream) {
  considered_host host{};
  host.interfaces[host.count++] = upstream;
  host.interfaces[host.count++] = downstream;
  return host;
}

texts against(void (*judge)(const considered_host &, reason_list &), const considered_host &host) {
  reason_list list{};
  judge(host, list);
  texts found;
  for (std::size_t i = 0; i < list.count; ++i) {
    found.emplace_back(list.reasons[i].data());
  }
  return found;
}

} // namespace

TEST(network_choice, short_names_and_small_indexes_suit_both_modes) {
  const considered_host host = given_host(given_interface({"eth0.222"}, 31), given_interface({"br0"}, 2, "bridge"));
  EXPECT_EQ(against(judge_host_network, host), texts{});
  EXPECT_EQ(against(judge_private_network, host), texts{});
}

TEST(network_choice, index_above_31_and_name_above_8_characters_speak_against_the_host) {
  const considered_host host = given_host(given_interface({"wan0"}, 32), given_interface({"br-lan.10"}, 5, "bridge"));
  EXPECT_EQ(against(judge_host_network, host),
            (texts{"wan0 has index 32, and multicast routing in the host's network takes indexes up to 31",
                   "br-lan.10 has 9 characters, and tarnwick takes names of up to 8"}));
  EXPECT_EQ(against(judge_private_network, host), texts{});
}

TEST(network_choice, another_multicast_router_speaks_against_the_host) {
  considered_host host = given_host(given_interface({"wan0"}, 3), given_interface({"br0"}, 4, "bridge"));
  host.is_routing_taken = true;
  EXPECT_EQ(against(judge_host_network, host),
            texts{"another program routes IPv6 multicast in the host's network already, and only one can"});
  EXPECT_EQ(against(judge_private_network, host), texts{});
}

TEST(network_choice, point_to_point_upstream_speaks_against_the_private_network) {
  considered_interface upstream = given_interface({"pppoe-wan"}, 9);
  upstream.carrier.link.hardware = ARPHRD_PPP;
  EXPECT_EQ(against(judge_private_network, given_host(upstream, given_interface({"br0"}, 4, "bridge"))),
            texts{"pppoe-wan cannot carry a macvlan: it is not an Ethernet interface (PPPoE and tunnels are not); "
                  "use --network=host"});
}

TEST(network_choice, port_of_a_bridge_carries_nothing) {
  considered_interface port = given_interface({"lan1"}, 4);
  port.carrier.master = given_interface({"br-lan"}, 5, "bridge").carrier.link;
  EXPECT_EQ(against(judge_private_network, given_host(given_interface({"wan0"}, 3), port)),
            texts{"lan1 cannot carry a macvlan: it is a port of br-lan; name br-lan instead, or use --network=host"});
}

TEST(network_choice, wireless_station_carries_an_ipvlan_at_most) {
  considered_interface station = given_interface({"wlan0"}, 4);
  station.carrier.is_wireless_station = true;
  considered_host host = given_host(station, given_interface({"br0"}, 5, "bridge"));
  EXPECT_EQ(against(judge_private_network, host),
            texts{"wlan0 cannot carry a macvlan: the access point of a Wi-Fi station takes frames of one MAC address "
                  "only; use --network=host, or --upstream-link=ipvlan"});
  host.upstream_link = upstream_link_kind::ipvlan;
  EXPECT_EQ(against(judge_private_network, host), texts{});
}

TEST(network_choice, member_of_a_vrf_carries_a_link) {
  considered_interface member = given_interface({"lan1"}, 4);
  member.carrier.master = given_interface({"red"}, 5, "vrf").carrier.link;
  EXPECT_EQ(against(judge_private_network, given_host(given_interface({"wan0"}, 3), member)), texts{});
}

TEST(network_choice, upstream_bridge_carries_a_link) {
  EXPECT_EQ(against(judge_private_network,
                    given_host(given_interface({"br-wan"}, 3, "bridge"), given_interface({"br0"}, 4, "bridge"))),
            texts{});
}

TEST(network_choice, interface_that_is_not_there_speaks_against_nothing) {
  considered_interface missing{};
  missing.name = {"wan0"};
  const considered_host host = given_host(missing, given_interface({"br0"}, 4, "bridge"));
  EXPECT_EQ(against(judge_host_network, host), texts{});
  EXPECT_EQ(against(judge_private_network, host), texts{});
}

TEST(carrier_judgement, refusals_of_the_kernel_come_in_plain_words) {
  const auto words = [](int refusal) { return std::string(reason_of_refusal(refusal, "macvlan", "wan0").data()); };
  EXPECT_EQ(words(EOPNOTSUPP), "this kernel has no macvlan links; use --network=host");
  EXPECT_EQ(words(EPERM), "not permitted to make a macvlan for wan0: CAP_NET_ADMIN is needed");
  EXPECT_EQ(words(EBUSY), "wan0 cannot carry a macvlan: something else takes its packets already, such as a bridge, a "
                          "bond or a link of another kind on it; use --network=host");
  EXPECT_EQ(words(ENODEV), "wan0 has gone");
  EXPECT_EQ(words(EINVAL), "wan0 cannot carry a macvlan: Invalid argument; use --network=host");
}

// Discovery in mode 4to6: IPv6 sockets and MIFs, and the NAT-PT device in place of the LAN.
#include "core/index_table.h"
#include "discovery_fixture.h"

#include <cerrno>
#include <cstring>

namespace {

using namespace scripted;

struct igmp_discovery_4to6 : igmp_discovery_fixture {
  igmp_discovery_4to6() {
    ProxyMode = PROXY_MODE_4TO6;
    MldPrefix = scripted::address("ff0e:1:2:3:4:5::");
  }
};

TEST_F(igmp_discovery_4to6, upstream_gets_vif_and_mif_and_downstream_a_mif_only) {
  EXPECT_EQ(discover(), 0);
  in6_addr mapped{};
  const std::uint32_t number = 2;
  mapped.s6_addr[0] = 0xff;
  mapped.s6_addr[1] = 0x02;
  std::memcpy(&mapped.s6_addr[12], &number, sizeof(number));
  const std::string group = text(from_in6_addr(mapped));
  then(joined({
      opening,
      loopback_lines(),
      set_up_lines("wan0", "0x1303", "192.0.2.2", "fd 1101"),
      {
          "socket(AF_INET6, SOCK_RAW, 58)",
          "setsockopt(fd 1102, IPV6_MULTICAST_IF) = 2",
          logged_information(discovery, "Detected wan0 as UPSTREAM interface."),
          vif_request(2, "192.0.2.2"),
          "if_nametoindex(wan0)",
          mif_request(2, 2),
          logged_debug(discovery, "Adding MIF for network: wan0."),
      },
      set_up_lines("br0", "0x1343", "198.51.100.3", "fd 1103"),
      {"socket(AF_INET6, SOCK_RAW, 58)", "setsockopt(fd 1104, IPV6_MULTICAST_IF) = 3"},
      downstream_lines("br0", "198.51.100.3", 3, "fd 1103"),
      {
          logged_debug(discovery, "Add membership with multicast address " + log_text(group)),
          "setsockopt(fd 1104, IPV6_ADD_MEMBERSHIP) group=" + group + " ifindex=3",
      },
      joined_lines("br0"),
      {
          "if_nametoindex(br0)",
          mif_request(3, 3),
          logged_debug(discovery, "Adding MIF for network: br0."),
          "close(fd 1100)",
      },
  }));
  EXPECT_EQ(found("br0")->vif_index, 3);
  EXPECT_EQ(found("br0")->socket6, 1104);
  EXPECT_EQ(index_table[0], 2);
  EXPECT_EQ(index_table[1], 0);
}

TEST_F(igmp_discovery_4to6, nvram_under_the_interfaces_own_name_names_lan_and_translator) {
  given_interface("natpt0", 9, 0x1003, "203.0.113.9");
  given_nvram({"lan_ifname=the lan", "br0=the lan", "ipv6_natpt_ifname=the translator", "natpt0=the translator"});
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(LanIndex, 3);
  EXPECT_EQ(NatptIndex, 9);
}

TEST_F(igmp_discovery_4to6, interface_whose_key_is_absent_is_neither_even_if_the_roles_are_unset) {
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(LanIndex, 0);
  EXPECT_EQ(NatptIndex, 0);
  given_nvram({"br0="}); // present and empty equals an unset role
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(LanIndex, 3);
  EXPECT_EQ(NatptIndex, 3);
}

TEST_F(igmp_discovery_4to6, ignored_interface_can_still_be_the_translator) {
  given_interface("natpt0", 9, 0x1003, "203.0.113.9");
  IgmpRouter.ignore_names[0] = copy_interface_name("natpt0");
  given_nvram({"ipv6_natpt_ifname=x", "natpt0=x"});
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(NatptIndex, 9);
  EXPECT_EQ(found("natpt0"), nullptr);
}

TEST_F(igmp_discovery_4to6, requests_for_the_lan_interface_name_the_translator) {
  LanIndex = 3;
  NatptIndex = 9;
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(mif_request(9, 9)));
  const lines joins = requests_with("IPV6_ADD_MEMBERSHIP");
  ASSERT_EQ(joins.size(), 1u);
  EXPECT_NE(joins[0].find(" ifindex=9"), std::string::npos);
  EXPECT_EQ(found("br0")->vif_index, 3);
}

TEST_F(igmp_discovery_4to6, device_of_a_mif_is_what_its_name_stands_for) {
  given_failure("if_nametoindex(br0)", ENODEV); // renamed since its index was asked for
  EXPECT_EQ(discover(), 0);
  then_in_order({"if_nametoindex(br0)", mif_request(3, 0)});
}

TEST_F(igmp_discovery_4to6, refused_mif_gives_back_an_index_that_a_downstream_interface_never_had) {
  given_failure("setsockopt(igmp, MRT6_ADD_MIF) mifi=3", ENFILE);
  EXPECT_EQ(discover(), 0);
  then_in_order({
      mif_request(3, 3),
      logged_error(discovery, "Adding MIF failed for network:br0 Error:" + std::to_string(ENFILE) + "."),
      "| device index: [3] not found!",
  });
  EXPECT_EQ(found("br0")->vif_index, -1);
  EXPECT_EQ(index_table[0], 2);
}

TEST_F(igmp_discovery_4to6, refused_mif_of_the_upstream_interface_takes_its_index_back) {
  given_failure("setsockopt(igmp, MRT6_ADD_MIF) mifi=2", ENFILE);
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(found("wan0")->vif_index, -1);
  EXPECT_EQ(index_table[0], 0);
}

TEST_F(igmp_discovery_4to6, refused_vif_is_forgotten_when_the_mif_is_accepted) {
  given_failure("setsockopt(igmp, MRT_ADD_VIF) vifi=2", ENFILE);
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(found("wan0")->vif_index, 2);
}

TEST_F(igmp_discovery_4to6, mode_4to4_reads_no_nvram) {
  ProxyMode = PROXY_MODE_4TO4;
  given_nvram({"lan_ifname=x", "br0=x"});
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(LanIndex, 0);
}

} // namespace

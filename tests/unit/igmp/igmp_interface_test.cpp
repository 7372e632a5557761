#include "igmp/igmp_interface.h"

#include "core/index_table.h"
#include "core/memory.h"
#include "discovery_fixture.h"
#include "igmp/igmp_shutdown.h"
#include "tests/support/leaks_on_purpose.h"

#include <cerrno>

namespace {

using namespace scripted;

using igmp_discovery = igmp_discovery_fixture;

TEST_F(igmp_discovery, upstream_and_downstream_are_set_up_and_registered_as_vifs) {
  EXPECT_EQ(discover(), 0);
  then(joined({
      opening,
      loopback_lines(),
      set_up_lines("wan0", "0x1303", "192.0.2.2", "fd 1101"),
      {
          logged_information(discovery, "Detected wan0 as UPSTREAM interface."),
          vif_request(2, "192.0.2.2"),
      },
      set_up_lines("br0", "0x1343", "198.51.100.3", "fd 1102"),
      downstream_lines("br0", "198.51.100.3", 3, "fd 1102"),
      joined_lines("br0"),
      {vif_request(3, "198.51.100.3"), "close(fd 1100)"},
  }));
  ASSERT_EQ(length(IgmpRouter.interfaces), 2);
  const auto *br0 = list_first<igmp_interface>(&IgmpRouter.interfaces);
  EXPECT_STREQ(br0->name.data(), "br0"); // newest first
  EXPECT_EQ(br0->role, IGMP_ROLE_DOWNSTREAM);
  EXPECT_EQ(br0->ifindex, 3);
  EXPECT_EQ(br0->vif_index, 3);
  EXPECT_EQ(br0->address, word("198.51.100.3"));
  EXPECT_EQ(br0->saved_flags, 0x1043);
  EXPECT_EQ(br0->socket, 1102);
  EXPECT_EQ(br0->socket6, 0);
  EXPECT_EQ(br0->is_querier, 1);
  EXPECT_EQ(br0->query_timer, 0);
  EXPECT_EQ(br0->version, 2);
  const igmp_interface *wan0 = IgmpRouter.upstream_interface;
  ASSERT_NE(wan0, nullptr);
  EXPECT_STREQ(wan0->name.data(), "wan0");
  EXPECT_EQ(wan0->role, IGMP_ROLE_UPSTREAM);
  EXPECT_EQ(wan0->vif_index, 2);
  EXPECT_EQ(index_table[0], 2); // slots follow discovery, VIF numbers the kernel's indexes
  EXPECT_EQ(index_table[1], 3);
  EXPECT_EQ(igmp_check_upstream_interface(), 0);
}

TEST_F(igmp_discovery, all_routers_join_passes_the_native_word) {
  EXPECT_EQ(discover(), 0);
  const std::string wire = wire_text(0xE0000002); // 2.0.0.224 on a little-endian machine
  EXPECT_TRUE(was_logged(logged_information(discovery, "Detected br0 as DOWNSTREAM and added membership: " + wire)));
  EXPECT_EQ(requests_with("IP_ADD_MEMBERSHIP"),
            lines{"setsockopt(fd 1102, IP_ADD_MEMBERSHIP) group=" + wire + " address=198.51.100.3 ifindex=3"});
}

TEST_F(igmp_discovery, host_with_upstream_only_stops_the_proxy_silently) {
  given_interfaces({"lo", "wan0"});
  EXPECT_EQ(discover(), -1);
  then_in_order({"close(fd 1100)", logged_debug("igmp_proxy_stop", "Stopping IGMP Proxy."), unusable});
  EXPECT_EQ(IgmpRouter.upstream_interface, nullptr);
  EXPECT_EQ(malloc_counter, free_counter);
}

TEST_F(igmp_discovery, refused_wan_name_still_counts_as_candidate) {
  for (const std::string name : {"ppp0", "nas1", "my-ppp", "xnas"}) {
    reset();
    index_table = {};
    Kernel.names[IGMP_SOCKET] = "igmp";
    given_interface("wan0", 2, 0x1003, "192.0.2.2");
    given_interface(name, 3, 0x1003, "198.51.100.3");
    malloc_counter = free_counter = 0;
    EXPECT_EQ(discover(), 0) << name;
    // Flags changed, socket open, but no VIF and no record.
    then(joined({opening,
                 set_up_lines("wan0", "0x1303", "192.0.2.2", "fd 1101"),
                 {logged_information(discovery, "Detected wan0 as UPSTREAM interface."), vif_request(2, "192.0.2.2")},
                 set_up_lines(name, "0x1303", "198.51.100.3", "fd 1102"),
                 {logged_debug(discovery, "Detected " + name + " as non-DOWNSTREAM interface."), "close(fd 1100)"}}));
    EXPECT_EQ(malloc_counter - free_counter, 1);
    ASSERT_EQ(length(IgmpRouter.interfaces), 1);
    my_free(list_remove(&IgmpRouter.interfaces));
    IgmpRouter.upstream_interface = nullptr;
  }
}

TEST_F(igmp_discovery, upstream_may_be_named_like_a_wan_device) {
  IgmpRouter.upstream_name = copy_interface_name("ppp7");
  given_interface("ppp7", 7, 0x1003, "192.0.2.77");
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(logged_information(discovery, "Detected ppp7 as UPSTREAM interface.")));
  then_anything();
  EXPECT_EQ(IgmpRouter.upstream_interface, found("ppp7"));
}

TEST_F(igmp_discovery, downstream_names_of_option_d_are_not_consulted) {
  DownstreamInterfacesName[0] = "other0";
  DownstreamInterfacesNum = 1;
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_NE(found("br0"), nullptr);
}

TEST_F(igmp_discovery, kernel_without_interfaces_stops_the_proxy_silently) {
  Kernel.interfaces.clear();
  EXPECT_EQ(discover(), -1);
  then(joined({opening,
               {
                   "close(fd 1100)",
                   logged_debug("igmp_proxy_stop", "Stopping IGMP Proxy."),
                   unusable,
                   logged_debug("igmp_proxy_stop", "No memory leaks detected."),
                   logged_debug("igmp_proxy_stop", "IGMP Proxy was using 0 bytes."),
               }}));
}

TEST_F(igmp_discovery, no_more_than_fifty_interfaces_are_asked_for) {
  Kernel.interfaces.clear();
  given_interface("wan0", 2, 0x1003, "192.0.2.2");
  for (int i = 0; i < 60; ++i) {
    given_interface("lan" + std::to_string(i), 10 + i, 0x1003, "198.51.100.1");
  }
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(length(IgmpRouter.interfaces), 50);
}

TEST_F(igmp_discovery, ignored_interface_is_left_alone) {
  IgnoreInterfacesName = {nullptr, "eth1"}; // as "-d br0 -i eth1" leaves the table
  IgnoreInterfacesNum = 2;
  run([] { init_igmp_config(); });
  take_transcript();
  IgmpRouter.socket = IGMP_SOCKET;
  given_interface("eth1", 5, 0x1003, "203.0.113.5");
  EXPECT_EQ(discover(), 0);
  EXPECT_EQ(requests_with("eth1"), lines{"ioctl(fd 1100, SIOCGIFINDEX) eth1"});
  EXPECT_EQ(found("eth1"), nullptr);
}

TEST_F(igmp_discovery, eight_ignored_names_end_with_the_table) {
  IgmpRouter.ignore_names.fill(copy_interface_name("eth1"));
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_NE(found("br0"), nullptr);
}

TEST_F(igmp_discovery, point_to_point_interface_has_its_peers_address_and_keeps_its_flags) {
  given_interface("tun0", 5, IFF_POINTOPOINT, "203.0.113.5", "203.0.113.9");
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(logged_debug(discovery, "Detected tun0 as Point to Point interface.")));
  EXPECT_TRUE(was_logged(vif_request(5, "203.0.113.9")));
  EXPECT_EQ(requests_with(") tun0"), (lines{"ioctl(fd 1100, SIOCGIFINDEX) tun0", "ioctl(fd 1100, SIOCGIFFLAGS) tun0",
                                            "ioctl(fd 1100, SIOCGIFDSTADDR) tun0"}));
  ASSERT_NE(found("tun0"), nullptr);
  EXPECT_EQ(found("tun0")->address, word("203.0.113.9"));
  EXPECT_EQ(found("tun0")->saved_flags, IFF_POINTOPOINT);
}

TEST_F(igmp_discovery, flags_of_a_point_to_point_interface_are_written_back_at_the_stop) {
  given_interface("tun0", 5, IFF_POINTOPOINT, "203.0.113.5", "203.0.113.9");
  EXPECT_EQ(discover(), 0);
  then_anything();
  when([] { igmp_proxy_stop(); });
  then_in_order({logged_debug("igmp_proxy_clean_interface", "Cleaning interface: tun0"),
                 "ioctl(fd 1104, SIOCSIFFLAGS) tun0 flags=0x10"});
}

TEST_F(igmp_discovery, flags_are_written_although_they_are_set_already) {
  given_interface("lan1", 4, 0x1303, "203.0.113.4");
  EXPECT_EQ(discover(), 0);
  EXPECT_EQ(requests_with("SIOCSIFFLAGS) lan1"), lines{"ioctl(fd 1100, SIOCSIFFLAGS) lan1 flags=0x1303"});
  EXPECT_EQ(found("lan1")->saved_flags, 0x1303);
}

// As the kernel lists an interface with two addresses.
TEST_F(igmp_discovery, interface_listed_twice_has_two_records_and_its_last_address_counts) {
  const leaks_on_purpose first_upstream_record;
  given_interface("wan0", 2, 0x1003, "192.0.2.77");
  given_interface("br0", 3, 0x1043, "198.51.100.77");
  EXPECT_EQ(discover(), 0);
  then_anything();
  EXPECT_EQ(length(IgmpRouter.interfaces), 4);
  EXPECT_EQ(IgmpRouter.upstream_interface->address, word("192.0.2.77"));
  EXPECT_EQ(igmp_find_interface(3)->address, word("198.51.100.77"));
  // A stop cleans both downstream records, and of the upstream ones the last.
  when([] { igmp_proxy_stop(); });
  lines cleaned;
  for (const std::string &line : take_transcript()) {
    if (line.find("Cleaning interface") != std::string::npos) {
      cleaned.push_back(line.substr(line.rfind(' ') + 1));
    }
  }
  EXPECT_EQ(cleaned, (lines{"br0", "br0", "wan0"}));
  EXPECT_EQ(malloc_counter - free_counter, 1);
}

TEST_F(igmp_discovery, point_to_point_interface_without_peer_keeps_its_own_address) {
  given_interface("tun0", 5, IFF_POINTOPOINT, "203.0.113.5", "203.0.113.9");
  given_failure("ioctl(fd 1100, SIOCGIFDSTADDR)", EINVAL);
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(logged_error(discovery, "Unable to get peer address for tun0.")));
  then_anything();
  ASSERT_NE(found("tun0"), nullptr);
  EXPECT_EQ(found("tun0")->address, word("203.0.113.5"));
}

TEST_F(igmp_discovery, mode_6to6_registers_nothing) {
  ProxyMode = PROXY_MODE_6TO6;
  EXPECT_EQ(discover(), 0);
  EXPECT_EQ(requests_with("setsockopt(igmp"), lines{});
  EXPECT_EQ(found("br0")->vif_index, 0);
}

} // namespace

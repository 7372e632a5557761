#include "discovery_fixture.h"
#include "mld/mld_shutdown.h"

#include <cerrno>

namespace {

using namespace scripted;

using mld_discovery = mld_discovery_fixture;

TEST_F(mld_discovery, upstream_alone_is_enough) {
  when_discovered();
  then(opened + upstream_found + closed);
  EXPECT_EQ(result, 0);
  then_interfaces_are({"wan0"});
}

TEST_F(mld_discovery, downstream_names_follow_in_their_order) {
  given_downstream({"br0", "lan1"});
  when_discovered();
  then(opened + upstream_found + downstream_found("br0", 3) + downstream_found("lan1", 4) + closed);
  EXPECT_EQ(result, 0);
  then_interfaces_are({"lan1", "br0", "wan0"});
}

TEST_F(mld_discovery, upstream_record_is_filled) {
  when_discovered();
  then_anything();
  const mld_interface *intr = MldRouter.upstream_interface;
  ASSERT_NE(intr, nullptr);
  EXPECT_EQ(list_get_head(&MldRouter.interfaces), &intr->link);
  EXPECT_EQ(intr->role, MLD_ROLE_UPSTREAM);
  EXPECT_EQ(intr->socket, FIRST_NEW_SOCKET + 1);
  EXPECT_STREQ(intr->name.data(), "wan0");
  EXPECT_EQ(intr->ifindex, 2u);
  EXPECT_EQ(text(intr->link_local), "fe80::2");
  EXPECT_EQ(intr->saved_flags, 0x1003u);
  EXPECT_EQ(intr->vif_index, 2u);
}

TEST_F(mld_discovery, downstream_record_is_filled_and_starts_as_querier) {
  given_downstream({"br0"});
  when_discovered();
  then_anything();
  const auto *intr = list_first<mld_interface>(&MldRouter.interfaces);
  EXPECT_EQ(intr->role, MLD_ROLE_DOWNSTREAM);
  EXPECT_EQ(intr->socket, FIRST_NEW_SOCKET + 2);
  EXPECT_STREQ(intr->name.data(), "br0");
  EXPECT_EQ(intr->ifindex, 3u);
  EXPECT_EQ(text(intr->link_local), "fe80::3");
  EXPECT_EQ(intr->saved_flags, 0x1003u);
  EXPECT_EQ(intr->vif_index, 3u);
  EXPECT_EQ(intr->is_querier, 1u);
  EXPECT_EQ(intr->query_timer, 0);
  EXPECT_EQ(intr->other_querier_timer, 0);
  EXPECT_EQ(intr->join_count + intr->leave_count + intr->query_count + intr->timeout_count, 0u);
  EXPECT_EQ(list_get_head(&intr->groups), nullptr);
  EXPECT_EQ(list_get_head(&intr->hosts), nullptr);
}

TEST_F(mld_discovery, no_membership_is_joined_on_any_interface) {
  given_downstream({"br0", "lan1"});
  when_discovered();
  for (const std::string &line : take_transcript()) {
    EXPECT_EQ(line.find("MEMBERSHIP"), std::string::npos) << line;
    EXPECT_EQ(line.find("MCAST_"), std::string::npos) << line;
  }
}

TEST_F(mld_discovery, sending_interface_is_set_on_the_upstream_socket_only) {
  given_downstream({"br0", "lan1"});
  when_discovered();
  const lines happened = take_transcript();
  EXPECT_EQ(std::count_if(happened.begin(), happened.end(),
                          [](const std::string &line) {
                            return is_request(line) && line.find("IPV6_MULTICAST_IF") != std::string::npos;
                          }),
            1);
}

TEST_F(mld_discovery, empty_name_ends_the_table) {
  given_downstream({"br0", "", "lan1"});
  when_discovered();
  then(opened + upstream_found + downstream_found("br0", 3) + closed);
}

TEST_F(mld_discovery, eighth_name_is_the_last) {
  given_downstream({"gone1", "gone2", "gone3", "gone4", "gone5", "gone6", "gone7", "br0"});
  when_discovered();
  then_interfaces_are({"br0", "wan0"});
  then_anything();
}

TEST_F(mld_discovery, missing_downstream_is_passed_over) {
  given_downstream({"gone0", "br0"});
  when_discovered();
  then(opened + upstream_found + named("gone0") +
       lines{"ioctl(net iface, SIOCGIFINDEX) gone0", debug("Unable to get index for gone0.")} +
       downstream_found("br0", 3) + closed);
  EXPECT_EQ(result, 0);
}

TEST_F(mld_discovery, loopback_is_skipped_silently) {
  given_downstream({"lo", "br0"});
  when_discovered();
  then(opened + upstream_found + named("lo") + looked_up("lo", 1) + downstream_found("br0", 3) + closed);
  then_interfaces_are({"br0", "wan0"});
}

TEST_F(mld_discovery, wan_names_among_the_downstreams_get_no_record) {
  const lines names{"ppp0", "nas1", "xppp", "mynas"};
  for (const std::string &name : names) {
    Kernel.interfaces.push_back({name, 9, 0x1003, "fe80::9"});
  }
  given_downstream(names);
  when_discovered();
  then_in_order({
      debug("Detected ppp0 as non-DOWNSTREAM interface."),
      debug("Detected nas1 as non-DOWNSTREAM interface."),
      debug("Detected xppp as non-DOWNSTREAM interface."),
      debug("Detected mynas as non-DOWNSTREAM interface."),
  });
  then_interfaces_are({"wan0"});
  EXPECT_EQ(malloc_counter, 5);
  EXPECT_EQ(free_counter, 4);
}

TEST_F(mld_discovery, wan_name_goes_through_every_step_before_it_is_given_up) {
  Kernel.interfaces.push_back({"ppp0", 9, 0x1003, "fe80::9"});
  given_downstream({"ppp0", "br0"});
  when_discovered();
  then(opened + upstream_found + named("ppp0") + looked_up("ppp0", 9) + flagged("ppp0") + given_socket +
       lines{debug("Detected ppp0 as non-DOWNSTREAM interface.")} + downstream_found("br0", 3) + closed);
  EXPECT_EQ(result, 0);
}

TEST_F(mld_discovery, wan_name_that_was_given_up_is_not_restored_by_a_stop) {
  Kernel.interfaces.push_back({"ppp0", 9, 0x1003, "fe80::9"});
  given_downstream({"ppp0", "br0"});
  when_discovered();
  then_anything();
  when([] { mld_proxy_stop(); });
  const lines happened = take_transcript();
  const auto count = [&](const std::string &part) {
    return std::count_if(happened.begin(), happened.end(), [&](const std::string &line) {
      return is_request(line) && line.find(part) != std::string::npos;
    });
  };
  EXPECT_EQ(count("SIOCSIFFLAGS"), 2);
  EXPECT_EQ(count("MRT6_DEL_MIF"), 2);
  EXPECT_EQ(count("ppp0"), 0);
  EXPECT_EQ(count("close(fd 1102)"), 0) << "its socket";
  EXPECT_EQ(malloc_counter, free_counter);
}

TEST_F(mld_discovery, upstream_may_have_a_wan_name) {
  machine("wan0").name = "ppp0";
  MldRouter.upstream_name = copy_interface_name("ppp0");
  when_discovered();
  then_in_order({debug("Set ppp0 as UPSTREAM interface.")});
  then_interfaces_are({"ppp0"});
}

TEST_F(mld_discovery, point_to_point_upstream_keeps_its_flags) {
  machine("wan0").flags = 0x1013;
  when_discovered();
  then(opened + looked_up("wan0", 2) +
       lines{debug("Detected wan0 as Point to Point interface."), "ioctl(net iface, SIOCGIFDSTADDR) wan0"} +
       given_socket + made_upstream + registered("wan0", 2) + closed);
  EXPECT_EQ(MldRouter.upstream_interface->saved_flags, 0x1013u);
}

TEST_F(mld_discovery, peer_address_that_cannot_be_read_does_not_matter) {
  machine("wan0").flags = 0x1013;
  given_failure("ioctl(net iface, SIOCGIFDSTADDR)", ENOTTY);
  when_discovered();
  then_in_order({"ioctl(net iface, SIOCGIFDSTADDR) wan0", error("Unable to get peer address for wan0."),
                 "fopen(/proc/net/if_inet6, r)"});
  EXPECT_EQ(result, 0);
}

TEST_F(mld_discovery, point_to_point_downstream_gets_its_flags_set) {
  machine("br0").flags = 0x1013;
  given_downstream({"br0"});
  when_discovered();
  then(opened + upstream_found + named("br0") + looked_up("br0", 3) + flagged("br0", "0x1313") + given_socket +
       lines{debug("Set br0 as DOWNSTREAM interface.")} + registered("br0", 3) + closed);
}

TEST_F(mld_discovery, flags_above_the_sign_bit_are_kept_as_sixteen_bits) {
  machine("br0").flags = 0x9003;
  given_downstream({"br0"});
  when_discovered();
  then_in_order({"ioctl(net iface, SIOCSIFFLAGS) br0 flags=0x9303"});
  EXPECT_EQ(list_first<mld_interface>(&MldRouter.interfaces)->saved_flags, 0x9003u);
}

struct mld_upstream_check : mld_fixture {};

TEST_F(mld_upstream_check, passes_with_an_upstream_interface) {
  int result = -1;
  when([&] { result = mld_check_upstream_interface(); });
  then({});
  EXPECT_EQ(result, 0);
}

struct mld_missing_upstream : mld_start_fixture {};

TEST_F(mld_missing_upstream, stops_the_proxy) {
  int result = 1;
  when([&] { result = mld_check_upstream_interface(); });
  then(lines{logged_error("mld_check_upstream_interface", "Unable to locate upstream interface. Aborting !")} +
       stopped_without_interfaces());
  EXPECT_EQ(result, -1);
}

TEST_F(mld_upstream_check, interfaces_are_found_by_their_kernel_index) {
  EXPECT_EQ(mld_find_interface(2), wan0);
  EXPECT_EQ(mld_find_interface(4), lan1);
  EXPECT_EQ(mld_find_interface(9), nullptr);
}

} // namespace

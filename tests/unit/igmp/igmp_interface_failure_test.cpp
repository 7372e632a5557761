// What discovery does when the kernel refuses something.
#include "core/index_table.h"
#include "core/memory.h"
#include "discovery_fixture.h"
#include "tests/support/leaks_on_purpose.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>

namespace {

using namespace scripted;

using igmp_discovery = igmp_discovery_fixture;

TEST_F(igmp_discovery, interface_without_index_is_skipped) {
  given_interface("lan1", 4, 0x1003, "203.0.113.4");
  given_failure("ioctl(fd 1100, SIOCGIFINDEX) br0", ENODEV);
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(logged_debug(discovery, "Unable to get index for br0.")));
  then_anything();
  EXPECT_EQ(found("br0"), nullptr);
  EXPECT_NE(found("lan1"), nullptr);
}

TEST_F(igmp_discovery, unreadable_flags_are_taken_as_the_request_holds_them) {
  // The request still holds the interface's index; its bytes stand where the flags would be.
  const std::int32_t ifindex = 3;
  ifreq request{};
  request.ifr_ifindex = ifindex;
  const auto flags = static_cast<std::uint16_t>(request.ifr_flags);
  given_failure("ioctl(fd 1100, SIOCGIFFLAGS) br0", EIO);
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(logged_error(discovery, "Unable to get interface flags for br0.")));
  char text[16];
  std::snprintf(text, sizeof(text), "0x%x", static_cast<unsigned int>(flags | 0x300));
  EXPECT_EQ(requests_with("SIOCSIFFLAGS) br0"), lines{"ioctl(fd 1100, SIOCSIFFLAGS) br0 flags=" + std::string(text)});
  ASSERT_NE(found("br0"), nullptr);
  EXPECT_EQ(found("br0")->saved_flags, request.ifr_flags);
}

TEST_F(igmp_discovery, flags_that_cannot_be_set_are_logged_and_discovery_goes_on) {
  given_failure("ioctl(fd 1100, SIOCSIFFLAGS) br0", EPERM);
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(logged_error(discovery, "Unable to set interface flags for br0.")));
  then_anything();
  EXPECT_NE(found("br0"), nullptr);
}

TEST_F(igmp_discovery, refused_vif_leaves_the_interface_on_the_list_without_number_or_slot) {
  given_failure("setsockopt(igmp, MRT_ADD_VIF) vifi=3", ENFILE);
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(
      was_logged(logged_error(discovery, "Adding VIF failed for network:br0 Error:" + std::to_string(ENFILE) + ".")));
  then_anything();
  ASSERT_NE(found("br0"), nullptr);
  EXPECT_EQ(found("br0")->vif_index, -1);
  EXPECT_EQ(index_table[0], 2);
  EXPECT_EQ(index_table[1], 0);
}

TEST_F(igmp_discovery, full_index_table_does_not_keep_an_interface_from_its_vif) {
  index_table.fill(99);
  EXPECT_EQ(discover(), 0);
  then_in_order(
      {"| index table full!", vif_request(2, "192.0.2.2"), "| index table full!", vif_request(3, "198.51.100.3")});
  EXPECT_EQ(found("br0")->vif_index, 3);
}

struct fatal_row {
  std::string request;
  std::string message;
  int mode = PROXY_MODE_4TO4;
  int records_lost = 1; // a record that was not linked yet stays behind
};

TEST_F(igmp_discovery, each_fatal_failure_is_logged_and_stops_the_proxy) {
  const std::vector<fatal_row> rows{
      {"socket(AF_INET, SOCK_DGRAM, 0)", "Unable to open IGMP socket for interface.", PROXY_MODE_4TO4, 0},
      {"ioctl(fd 1100, SIOCGIFCONF)", "Unable to get the list of network interfaces.", PROXY_MODE_4TO4, 0},
      {"malloc(", "Unable to allocate memory.", PROXY_MODE_4TO4, 1}, // counted although refused
      {"socket(AF_INET, SOCK_RAW, 2)", "Unable to open IGMP Raw socket."},
      {"setsockopt(fd 1101, IP_MULTICAST_IF)", "set socket option IP_MULTICAST_IF fail."},
      {"setsockopt(fd 1101, IP_ADD_MEMBERSHIP)", "Unable to add router membership for interface:br0."},
      {"socket(AF_INET6, SOCK_RAW, 58)", "Unable to open MLD Raw socket.", PROXY_MODE_4TO6},
      {"setsockopt(fd 1102, IPV6_MULTICAST_IF)", "set socket option IPV6_MULTICAST_IF fail.", PROXY_MODE_4TO6},
      {"setsockopt(fd 1102, IPV6_ADD_MEMBERSHIP)", "Unable to add IPv6 membership for interface: br0.",
       PROXY_MODE_4TO6},
  };
  const leaks_on_purpose record_that_is_not_linked_yet;
  for (const fatal_row &row : rows) {
    reset();
    index_table = {};
    malloc_counter = free_counter = 0;
    Kernel.names[IGMP_SOCKET] = "igmp";
    given_interface("br0", 3, 0x1003, "198.51.100.3"); // comes before the upstream interface
    given_interface("wan0", 2, 0x1003, "192.0.2.2");
    ProxyMode = row.mode;
    given_failure(row.request, EIO);
    EXPECT_EQ(discover(), -1) << row.request;
    EXPECT_FALSE(was_logged("close(fd 1100)")) << row.request; // discovery's own socket stays open
    then_in_order({
        logged_error(discovery, row.message),
        logged_debug("igmp_proxy_stop", "Stopping IGMP Proxy."),
        unusable,
    });
    EXPECT_EQ(malloc_counter - free_counter, row.records_lost) << row.request;
    EXPECT_EQ(length(IgmpRouter.interfaces), 0);
  }
}

TEST_F(igmp_discovery, interfaces_that_were_ready_are_cleaned_after_a_fatal_failure) {
  const leaks_on_purpose record_that_is_not_linked_yet;
  given_failure("setsockopt(fd 1102, IP_ADD_MEMBERSHIP)", EINVAL); // what a little-endian kernel answers
  EXPECT_EQ(discover(), -1);
  then_in_order({
      logged_error(discovery, "Unable to add router membership for interface:br0."),
      logged_debug("igmp_proxy_clean_interface", "Cleaning interface: wan0"),
      "ioctl(fd 1103, SIOCSIFFLAGS) wan0 flags=0x1003",
      "setsockopt(igmp, MRT_DEL_VIF) vifi=2 flags=0 threshold=0 rate=0 local=0.0.0.0 remote=0.0.0.0",
      unusable,
  });
}

TEST_F(igmp_discovery, missing_upstream_stops_the_proxy_with_a_result_of_its_own) {
  given_interfaces({"lo", "br0"});
  EXPECT_EQ(discover(), 0);
  then_anything();
  int result = 0;
  when([&] { result = igmp_check_upstream_interface(); });
  EXPECT_EQ(result, -2);
  then_in_order({
      logged_error("igmp_check_upstream_interface", "Unable to locate upstream interface. Aborting !"),
      logged_debug("igmp_proxy_stop", "Stopping IGMP Proxy."),
      logged_debug("igmp_proxy_clean_interface", "Cleaning interface: br0"),
      unusable,
  });
}

} // namespace

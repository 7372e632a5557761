#include "discovery_fixture.h"

#include <cerrno>
#include <net/if.h>

namespace {

using namespace scripted;

using mld_discovery = mld_discovery_fixture;

TEST_F(mld_discovery, flags_that_cannot_be_set_do_not_matter) {
  given_downstream({"br0"});
  given_failure("ioctl(net iface, SIOCSIFFLAGS)", EPERM, 2);
  when_discovered();
  then_in_order({error("Unable to set interface flags for wan0."), debug("Set wan0 as UPSTREAM interface."),
                 error("Unable to set interface flags for br0."), debug("Set br0 as DOWNSTREAM interface.")});
  EXPECT_EQ(result, 0);
}

// The request holds index and flags in the same place, so the index is taken for the flags here.
TEST_F(mld_discovery, flags_that_cannot_be_read_are_taken_as_the_request_holds_them) {
  given_downstream({"br0"});
  given_failure("ioctl(net iface, SIOCGIFFLAGS)", EPERM, 2);
  when_discovered();
  ifreq request{};
  request.ifr_ifindex = 3;
  const auto held = static_cast<std::uint16_t>(request.ifr_flags);
  then_in_order({error("Unable to get interface flags for wan0."), debug("Set wan0 as UPSTREAM interface."),
                 error("Unable to get interface flags for br0."), debug("Set br0 as DOWNSTREAM interface.")});
  EXPECT_EQ(list_first<mld_interface>(&MldRouter.interfaces)->saved_flags, held);
  EXPECT_EQ(result, 0);
}

// A step whose failure ends discovery while the upstream interface is not yet known to the proxy.
TEST_F(mld_discovery, failures_before_the_upstream_record_counts_stop_a_proxy_without_interfaces) {
  struct row {
    const char *request;
    lines transcript;
  };
  const lines ready = opened + looked_up("wan0", 2) + flagged("wan0");
  const row rows[] = {
      {"socket(AF_INET6, SOCK_DGRAM, 0)", opened + lines{error("Unable to open MLD socket for net iface.")}},
      {"malloc(", ready + lines{error("Unable to allocate memory.")}},
      {"fopen(", ready + lines{"fopen(/proc/net/if_inet6, r)",
                               logged_error("set_linklocal", "Couldn't open /proc/net/if_inet6 for figuring out "
                                                             "local interfaces")}},
      {"socket(AF_INET6, SOCK_RAW, 58)",
       ready + given_socket + lines{error("Unable to open MLD Raw socket for interface:wan0.")}},
  };
  for (const row &one : rows) {
    SCOPED_TRACE(one.request);
    const leaks_on_purpose record_that_is_not_linked_yet;
    reset();
    Kernel.interfaces = {{"wan0", 2, 0x1003, "fe80::2"}};
    Kernel.names[FIRST_NEW_SOCKET] = "net iface";
    given_failure(one.request, ENOMEM);
    when_discovered();
    then(one.transcript + stopped_without_interfaces());
    EXPECT_EQ(result, -1);
  }
}

TEST_F(mld_discovery, missing_upstream_is_looked_for_with_index_zero_and_ends_at_its_address) {
  Kernel.interfaces.clear();
  const leaks_on_purpose record_that_is_not_linked_yet;
  when_discovered();
  then(opened +
       lines{
           "ioctl(net iface, SIOCGIFINDEX) wan0",
           debug("Unable to get index for wan0."),
           debug("index=0"),
           "ioctl(net iface, SIOCGIFFLAGS) wan0",
           error("Unable to get interface flags for wan0."),
           "ioctl(net iface, SIOCSIFFLAGS) wan0 flags=0x300",
           error("Unable to set interface flags for wan0."),
           "fopen(/proc/net/if_inet6, r)",
           logged_error("set_linklocal", "Couldn't find out link local address for interfaces: wan0"),
       } +
       stopped_without_interfaces());
  EXPECT_EQ(result, -1);
}

TEST_F(mld_discovery, refused_sending_interface_stops_the_proxy_and_cleans_up_the_upstream) {
  given_failure("setsockopt(fd 1101, IPV6_MULTICAST_IF)", EADDRNOTAVAIL);
  when_discovered();
  then(opened + looked_up("wan0", 2) + flagged("wan0") + given_socket +
       lines{
           debug("Set wan0 as UPSTREAM interface."),
           "setsockopt(fd 1101, IPV6_MULTICAST_IF) = 2",
           error("setsockopt: IPV6_MULTICAST_IF fail!!!"),
           logged_debug("mld_proxy_stop", "Stop MLD Proxy."),
       } +
       cleaned("wan0", "0", "fd 1102", "fd 1101") +
       lines{"setsockopt(mld, MRT6_DONE) length=0", logged_debug("mld_proxy_stop", "setsockopt: MRT6_DONE")} +
       memory_report());
  EXPECT_EQ(result, -1);
}

TEST_F(mld_discovery, refused_upstream_mif_stops_the_proxy_and_is_deleted_as_no_mif) {
  given_failure("setsockopt(mld, MRT6_ADD_MIF)", ENFILE);
  when_discovered();
  then_in_order(lines{error("setsockopt: MRT6_ADD_MIF fail!!!"), logged_debug("mld_proxy_stop", "Stop MLD Proxy.")} +
                cleaned("wan0", "65535", "fd 1102", "fd 1101") +
                lines{logged_debug("mld_proxy_stop", "No memory leaks detected.")});
  EXPECT_EQ(result, -1);
}

TEST_F(mld_discovery, failed_step_of_a_downstream_stops_the_whole_proxy) {
  struct row {
    failure planned;
    lines log;
  };
  const row rows[] = {
      {{"malloc(", ENOMEM, 1, 1}, {error("Unable to allocate memory.")}},
      {{"fopen(", ENOENT, 1, 1},
       {logged_error("set_linklocal", "Couldn't open /proc/net/if_inet6 for figuring out local interfaces")}},
      {{"socket(AF_INET6, SOCK_RAW, 58)", EMFILE, 1, 1}, {error("Unable to open MLD Raw socket for interface:br0.")}},
      {{"setsockopt(mld, MRT6_ADD_MIF)", ENFILE, 1, 1},
       {debug("Set br0 as DOWNSTREAM interface."), error("setsockopt: MRT6_ADD_MIF fail!!!")}},
  };
  for (const row &one : rows) {
    SCOPED_TRACE(one.planned.request);
    const leaks_on_purpose record_that_is_not_linked_yet;
    reset();
    malloc_counter = free_counter = malloced_size = 0;
    Kernel.interfaces = {{"wan0", 2, 0x1003, "fe80::2"}, {"br0", 3, 0x1003, "fe80::3"}};
    given_downstream({"br0", "lan1"});
    Kernel.failures = {one.planned};
    when_discovered();
    then_in_order(one.log + lines{logged_debug("mld_proxy_stop", "Stop MLD Proxy."),
                                  logged_debug("mld_proxy_clean_interface", "Cleaning interface: wan0."),
                                  logged_error("mld_proxy_stop", "Memory leaks. Malloc:2 Free:1.")});
    EXPECT_EQ(result, -1);
    EXPECT_EQ(MldRouter.upstream_interface, nullptr);
  }
}

TEST_F(mld_discovery, downstream_without_link_local_address_stops_the_proxy) {
  machine("br0").ipv6 = "2001:db8::3";
  given_downstream({"br0", "lan1"});
  const leaks_on_purpose record_that_is_not_linked_yet;
  when_discovered();
  then_in_order({logged_error("set_linklocal", "Couldn't find out link local address for interfaces: br0"),
                 logged_debug("mld_proxy_stop", "Stop MLD Proxy.")});
  EXPECT_EQ(result, -1);
}

TEST_F(mld_discovery, interface_name_over_eight_characters_stops_the_proxy) {
  machine("br0").name = "br-guests";
  given_downstream({"br-guests"});
  const leaks_on_purpose record_that_is_not_linked_yet;
  when_discovered();
  then_in_order({logged_error("set_linklocal", "Couldn't find out link local address for interfaces: br-guests"),
                 logged_debug("mld_proxy_stop", "Stop MLD Proxy.")});
  EXPECT_EQ(result, -1);
}

} // namespace

#include "igmp/igmp_interface.h"

#include "core/index_table.h"
#include "core/memory.h"
#include "igmp/igmp_lan_address.h"
#include "igmp_proxy_test.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <net/if.h>

namespace {

using namespace scripted;

constexpr char discovery[] = "igmp_create_network_list";
constexpr char unusable[] = "setsockopt(igmp, MRT_DONE) length=0"; // what shows that the proxy was stopped

const std::string conf_request = "ioctl(fd 1100, SIOCGIFCONF) room=" + std::to_string(50 * sizeof(ifreq));

lines joined(std::initializer_list<lines> parts) {
  lines all;
  for (const lines &part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// Interfaces as on a router: lo, wan0 (2), br0 (3). Socket 1100 is discovery's, then one for each interface.
struct igmp_discovery : igmp_start_test {
  igmp_discovery() {
    UpstreamInterfacesName = "wan0";
    run([] { init_igmp_config(); });
    take_transcript();
    IgmpRouter.socket = IGMP_SOCKET;
    Kernel.names[IGMP_SOCKET] = "igmp";
    given_interface("lo", 1, IFF_LOOPBACK, "127.0.0.1");
    given_interface("wan0", 2, 0x1003, "192.0.2.2");
    given_interface("br0", 3, 0x1043, "198.51.100.3");
  }

  // A test that looked at a running proxy gives its records back without requests.
  ~igmp_discovery() override {
    while (list_node *record = list_remove(&IgmpRouter.interfaces)) {
      my_free(record);
    }
  }

  void given_interface(const std::string &name, int index, unsigned int flags, const std::string &ipv4,
                       const std::string &peer = "") {
    Kernel.interfaces.push_back({name, index, flags, "", ipv4, peer});
  }

  void given_interfaces(std::initializer_list<std::string> names) {
    std::vector<scripted::interface> kept;
    for (const scripted::interface &one : Kernel.interfaces) {
      if (std::find(names.begin(), names.end(), one.name) != names.end()) {
        kept.push_back(one);
      }
    }
    Kernel.interfaces = kept;
  }

  int discover() {
    int result = 1;
    when([&] { result = igmp_create_network_list(); });
    return result;
  }

  igmp_interface *found(const std::string &name) {
    for (auto *intr = list_first<igmp_interface>(&IgmpRouter.interfaces); intr != nullptr; intr = list_after(intr)) {
      if (name == intr->name.data()) {
        return intr;
      }
    }
    return nullptr;
  }

  // The transcript's requests, for assertions about some of them.
  lines requests_with(const std::string &part) {
    lines kept;
    for (const std::string &line : take_transcript()) {
      if (is_request(line) && line.find(part) != std::string::npos) {
        kept.push_back(line);
      }
    }
    return kept;
  }

  bool was_logged(const std::string &line) {
    return std::find(Kernel.transcript.begin(), Kernel.transcript.end(), line) != Kernel.transcript.end();
  }
};

const lines opening{
    logged_information(discovery, "Create network list for IGMP proxy."),
    "socket(AF_INET, SOCK_DGRAM, 0)",
    conf_request,
};

lines loopback_lines() { return {"ioctl(fd 1100, SIOCGIFINDEX) lo", "ioctl(fd 1100, SIOCGIFFLAGS) lo"}; }

lines set_up_lines(const std::string &name, const std::string &flags, const std::string &address,
                   const std::string &socket) {
  return {
      "ioctl(fd 1100, SIOCGIFINDEX) " + name,
      "ioctl(fd 1100, SIOCGIFFLAGS) " + name,
      "ioctl(fd 1100, SIOCSIFFLAGS) " + name + " flags=" + flags,
      "socket(AF_INET, SOCK_RAW, 2)",
      logged_information(discovery, "set IP_MULTICAST_IF for address " + octets_text(address)),
      "setsockopt(" + socket + ", IP_MULTICAST_IF) " + address,
  };
}

std::string join_request(const std::string &socket, const std::string &address, int ifindex) {
  return "setsockopt(" + socket + ", IP_ADD_MEMBERSHIP) group=" + wire_text(IgmpAllRouters) + " address=" + address +
         " ifindex=" + std::to_string(ifindex);
}

lines downstream_lines(const std::string &name, const std::string &address, int ifindex, const std::string &socket) {
  return {
      logged_information(discovery, "Detected " + name + " as DOWNSTREAM interface."),
      logged_debug(discovery, "mreq.imr_ifindex   = " + std::to_string(ifindex)),
      logged_debug(discovery, "mreq.imr_multiaddr = 224.0.0.2"),
      logged_debug(discovery, "mreq.imr_address   = " + octets_text(address)),
      join_request(socket, address, ifindex),
  };
}

lines joined_lines(const std::string &name) {
  return {
      logged_information(discovery,
                         "Detected " + name + " as DOWNSTREAM and added membership: " + wire_text(IgmpAllRouters)),
      logged_information(discovery, "Detected " + name + " as DOWNSTREAM and added ALL Router membership."),
  };
}

std::string vif_request(int ifindex, const std::string &address) {
  return "setsockopt(igmp, MRT_ADD_VIF) vifi=" + std::to_string(ifindex) +
         " flags=0 threshold=0 rate=0 local=" + address + " remote=0.0.0.0";
}

std::string mif_request(int mifi, int pifi) {
  return "setsockopt(igmp, MRT6_ADD_MIF) mifi=" + std::to_string(mifi) +
         " flags=0 threshold=0 pifi=" + std::to_string(pifi) + " rate=0";
}

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

TEST_F(igmp_discovery, host_with_upstream_only_stops_the_proxy_without_a_word) {
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

TEST_F(igmp_discovery, kernel_without_interfaces_stops_the_proxy_without_a_word) {
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

TEST_F(igmp_discovery, point_to_point_interface_without_peer_keeps_its_own_address) {
  given_interface("tun0", 5, IFF_POINTOPOINT, "203.0.113.5", "203.0.113.9");
  given_failure("ioctl(fd 1100, SIOCGIFDSTADDR)", EINVAL);
  EXPECT_EQ(discover(), 0);
  EXPECT_TRUE(was_logged(logged_error(discovery, "Unable to get peer address for tun0.")));
  then_anything();
  ASSERT_NE(found("tun0"), nullptr);
  EXPECT_EQ(found("tun0")->address, word("203.0.113.5"));
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

TEST_F(igmp_discovery, mode_6to6_registers_nothing) {
  ProxyMode = PROXY_MODE_6TO6;
  EXPECT_EQ(discover(), 0);
  EXPECT_EQ(requests_with("setsockopt(igmp"), lines{});
  EXPECT_EQ(found("br0")->vif_index, 0);
}

struct igmp_discovery_4to6 : igmp_discovery {
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

TEST_F(igmp_discovery_4to6, nvram_under_the_interfaces_own_name_tells_lan_and_translator) {
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

TEST_F(igmp_discovery, lan_address_is_read_from_its_first_octet_up) {
  const std::vector<std::pair<lines, std::uint32_t>> rows{
      {{"lan_ipaddr=1.2.3.4"}, 0x04030201},
      {{"lan_ipaddr=192.168.1.254"}, 0xfe01a8c0},
      {{"lan_ipaddr="}, 0},
      {{}, 0},
      {{"lan_ipaddr=10"}, 10},
      {{"lan_ipaddr=10.1"}, 0x010a},
      {{"lan_ipaddr=a.b.c.d"}, 0},
      {{"lan_ipaddr=1.2.3.4.5"}, 0x04030201},
  };
  for (const auto &[nvram, expected] : rows) {
    given_nvram(nvram);
    EXPECT_EQ(igmp_lan_address(), expected) << (nvram.empty() ? "absent" : nvram[0]);
  }
}

} // namespace

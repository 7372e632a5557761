// What the daemon's start-up has to do with IGMP (nothing), and the IGMP side's own life from start to stop.
#include "core/memory.h"
#include "core/start_up.h"
#include "fixture.h"
#include "igmp/igmp_interface.h"
#include "igmp/igmp_receive.h"
#include "igmp/igmp_shutdown.h"
#include "igmp/igmp_socket.h"
#include "igmp/igmp_timers.h"
#include "mld/mld_shutdown.h"

#include <cerrno>

namespace {

using namespace scripted;

struct igmp_life : igmp_start_fixture {
  igmp_life() { given_router(); }

  static void given_router() {
    Kernel.interfaces = {
        {"lo", 1, 0x49, "::1", "127.0.0.1"},
        {"wan0", 2, 0x1003, "fe80::2", "192.0.2.2"},
        {"br0", 3, 0x1003, "fe80::3", "198.51.100.3"},
        {"lan1", 4, 0x1003, "fe80::4", "203.0.113.4"},
    };
  }

  // The order in which a program that runs the IGMP side calls its entry points.
  static bool start() {
    init_igmp_config();
    return init_igmp_socket() == 0 && init_igmp_group() == 0 && init_igmp_query() == 0 &&
           igmp_create_network_list() == 0 && igmp_check_upstream_interface() == 0;
  }

  static void given_message(const igmp_datagram &datagram, int ifindex) {
    Kernel.messages.push_back({encoded(datagram), datagram.sender, ifindex, "224.0.0.2"});
  }

  // Joins, leaves, time and a stop. Reads as many datagrams as were queued, and in the end frees everything, no matter
  // what was refused on the way.
  static void live() {
    if (start()) {
      for (int i = 0; i < 6; ++i) {
        igmp_network_socket_read_data();
        igmp_router_timer_expired();
      }
      for (int i = 0; i < 360; ++i) {
        igmp_router_timer_expired();
      }
      igmp_proxy_stop();
    } else if (IgmpRouter.socket > 0) {
      igmp_proxy_stop(); // what a failed step left; a second stop is harmless
    }
  }

  static void given_traffic() {
    given_message({0x16, "239.1.2.3"}, 3);
    given_message({0x12, "239.1.2.3"}, 4);
    given_message({0x16, "239.1.2.4"}, 3);
    given_message({0x17, "239.1.2.4"}, 3);
    given_message({0x11, "0.0.0.0", "10.0.0.200"}, 3);
    given_message({0x11, "0.0.0.0", "200.0.0.1"}, 4);
  }
};

TEST_F(igmp_life, start_up_of_the_daemon_makes_no_igmp_request) {
  ProxyMode = PROXY_MODE_6TO6;
  std::vector<std::string> words{"tarnwick", "-u", "wan0", "-d", "br0,lan1"};
  std::vector<char *> arguments;
  for (std::string &one : words) {
    arguments.push_back(one.data());
  }
  arguments.push_back(nullptr);
  int result = -1;
  run([&] { result = start_up(static_cast<int>(words.size()), arguments.data()); });
  EXPECT_EQ(result, 0);
  const lines happened = take_transcript();
  EXPECT_GT(happened.size(), 20u);
  for (const std::string &line : happened) {
    EXPECT_EQ(line.find("igmp"), std::string::npos) << line;
    EXPECT_EQ(line.find("IGMP"), std::string::npos) << line;
    EXPECT_EQ(line.find("MRT_"), std::string::npos) << line;
    EXPECT_EQ(line.find("socket(AF_INET, SOCK_RAW"), std::string::npos) << line;
  }
  EXPECT_EQ(length(IgmpRouter.free_groups) + length(IgmpRouter.interfaces), 0);
  run([] { mld_proxy_stop(); });
  take_transcript();
}

TEST_F(igmp_life, unsupported_modes_still_end_the_daemons_start_up) {
  for (const std::int32_t mode : {PROXY_MODE_4TO4, PROXY_MODE_4TO6}) {
    ProxyMode = mode;
    given_nvram({"mld_prefix=ff0e::"});
    std::vector<std::string> words{"tarnwick", "-u", "wan0"};
    std::vector<char *> arguments{words[0].data(), words[1].data(), words[2].data(), nullptr};
    int result = 0;
    run([&] { result = start_up(3, arguments.data()); });
    EXPECT_EQ(result, -1);
    const lines happened = take_transcript();
    EXPECT_EQ(happened.back(), logged_error("main", "Unknown proxy mode!"));
  }
}

TEST_F(igmp_life, whole_life_gives_every_record_back) {
  for (const std::int32_t mode : {PROXY_MODE_4TO4, PROXY_MODE_4TO6}) {
    ProxyMode = mode;
    UpstreamInterfacesName = "wan0";
    MldPrefix = scripted::address("ff0e::");
    malloc_counter = free_counter = 0;
    given_traffic();
    when([] { live(); });
    then_in_order({
        logged_debug("igmp_proxy_stop", "No memory leaks detected."),
    });
    EXPECT_EQ(malloc_counter, free_counter);
    EXPECT_TRUE(Kernel.messages.empty());
  }
}

} // namespace

// Start-up, reports, ticks through every timer and shutdown of the IGMP proxy in both modes: each request fails once.
#include "tests/support/fault_sweep.h"

#include "core/index_table.h"
#include "core/memory.h"
#include "fixture.h"
#include "igmp/igmp_interface.h"
#include "igmp/igmp_receive.h"
#include "igmp/igmp_shutdown.h"
#include "igmp/igmp_socket.h"
#include "igmp/igmp_timers.h"
#include "tests/support/invariants.h"

namespace {

using namespace scripted;

// Not part of the test that sweeps, so that every run has a proxy of its own.
struct fresh_igmp : igmp_fixture {
  void TestBody() override {}
};

struct fresh_start : igmp_start_fixture {
  void TestBody() override {}
};

std::string check_stopped(int lost_at_most) {
  const int lost = malloc_counter - Kernel.allocations_refused - free_counter;
  const bool is_empty = IgmpRouter.interfaces.head == nullptr && IgmpRouter.free_groups.head == nullptr &&
                        IgmpRouter.free_queries.head == nullptr;
  if (!is_empty) {
    return "records left after the stop";
  }
  return lost < 0 || lost > lost_at_most ? "records lost: " + std::to_string(lost) : "";
}

void receive(const igmp_datagram &datagram, int ifindex) {
  Kernel.messages.push_back({encoded(datagram), datagram.sender, ifindex, "224.0.0.2"});
  igmp_network_socket_read_data();
  Kernel.messages.clear();
}

void tick(int times) {
  for (int i = 0; i < times; ++i) {
    igmp_router_timer_expired();
  }
}

sweep_scenario on_running_proxy(const std::string &name, std::int32_t mode, const std::function<void()> &play) {
  return {name, [=](const std::function<void()> &arm) -> std::string {
            fresh_igmp proxy;
            if (mode == PROXY_MODE_4TO6) {
              proxy.given_mode_4to6();
            }
            proxy.given_group(proxy.br0, "239.1.0.1");
            proxy.given_group(proxy.br0, "239.1.0.2");
            proxy.given_group(proxy.lan1, "239.1.0.2", IGMP_GROUP_V1_MEMBERS_PRESENT);
            proxy.given_checking(proxy.given_group(proxy.lan1, "239.1.0.3"), 2, 0);
            arm();
            run(play);
            disarm();
            record_count count;
            const std::string complaint = check_igmp_records(count);
            if (!complaint.empty()) {
              return complaint;
            }
            if (count.groups != IGMP_GROUP_POOL_SIZE || count.queries != IGMP_QUERY_POOL_SIZE) {
              return "pools drifted";
            }
            run([] { igmp_proxy_stop(); });
            return check_stopped(0);
          }};
}

std::vector<sweep_scenario> life_scenarios(std::int32_t mode) {
  const auto scenario = [=](const char *name, const std::function<void()> &play) {
    return on_running_proxy(name + std::string(mode == PROXY_MODE_4TO4 ? ", 4to4" : ", 4to6"), mode, play);
  };
  return {
      scenario("version 1 and 2 reports",
               [] {
                 for (const int type : {0x12, 0x16}) {
                   receive({type, "239.1.0.1"}, 3);
                   receive({type, "239.1.0.3"}, 4);
                   receive({type, "239.1.0.9"}, 3);
                 }
               }),
      scenario("leave without answer",
               [] {
                 receive({0x17, "239.1.0.1"}, 3);
                 receive({0x17, "239.1.0.2"}, 3);
                 tick(15);
               }),
      scenario("queries of other routers",
               [] {
                 receive({0x11, "0.0.0.0", "10.0.0.1"}, 3);
                 receive({0x11, "0.0.0.0", "250.0.0.250"}, 4);
                 tick(2);
               }),
      scenario("groups run out", [] { tick(353); }),
  };
}

// From the routing socket to the stop, with a report and a tick in between.
sweep_scenario whole_life(std::int32_t mode) {
  return {"whole life", [=](const std::function<void()> &arm) -> std::string {
            fresh_start process;
            ProxyMode = mode;
            UpstreamInterfacesName = "wan0";
            MldPrefix = address("ff0e::");
            Kernel.interfaces = {{"wan0", 2, 0x1003, "fe80::2", "192.0.2.2"},
                                 {"br0", 3, 0x1003, "fe80::3", "198.51.100.3"},
                                 {"ppp0", 4, 0x1011, "", "203.0.113.4", "203.0.113.5"}};
            index_table = {};
            arm();
            run([] {
              init_igmp_config();
              const bool is_up = init_igmp_socket() == 0 && init_igmp_group() == 0 && init_igmp_query() == 0 &&
                                 igmp_create_network_list() == 0 && igmp_check_upstream_interface() == 0;
              if (is_up) {
                receive({0x16, "239.1.0.1"}, 3);
                tick(2);
              }
            });
            disarm();
            run([] { igmp_proxy_stop(); });
            const int discovery_record = 1; // lost when discovery fails between its allocation and its list
            return check_stopped(discovery_record);
          }};
}

TEST(igmp_fault_sweep, every_request_of_reports_and_timers_may_fail_in_mode_4to4) {
  EXPECT_GT(sweep_all(life_scenarios(PROXY_MODE_4TO4)), 200);
}

TEST(igmp_fault_sweep, every_request_of_reports_and_timers_may_fail_in_mode_4to6) {
  EXPECT_GT(sweep_all(life_scenarios(PROXY_MODE_4TO6)), 200);
}

TEST(igmp_fault_sweep, every_request_of_a_whole_life_may_fail) {
  EXPECT_GT(sweep_all({whole_life(PROXY_MODE_4TO4), whole_life(PROXY_MODE_4TO6)}), 500);
}

} // namespace

// Querier roles, and the general queries that go with them.
#include "igmp/igmp_timers.h"

#include "fixture.h"
#include "igmp/igmp_query.h"
#include "tests/support/request_text.h"

namespace {

using namespace scripted;

constexpr char pass[] = "igmp_router_timer_expired";
constexpr char group_address[] = "239.1.2.3";

std::string sent(const std::string &interface, const std::string &to) {
  return "sendto(" + interface + ", 8 bytes) to=" + to + " port=0";
}

std::string general_query(const std::string &interface) { return sent(interface, wire_text(IgmpAllHosts)); }

struct igmp_querier_timers : igmp_fixture {};

TEST_F(igmp_querier_timers, only_the_very_first_query_is_repeated_early) {
  const auto query_ticks = [&] {
    std::map<std::string, std::vector<int>> ticks;
    for (int tick = 1; tick <= 300; ++tick) {
      when_ticked();
      for (const std::string &line : take_transcript()) {
        ticks[line].push_back(tick);
      }
    }
    return ticks;
  }();
  // The list begins with lan1, so lan1's is the first.
  EXPECT_EQ(query_ticks, (std::map<std::string, std::vector<int>>{
                             {general_query("lan1"), {1, 31, 156, 281}},
                             {general_query("br0"), {1, 126, 251}},
                         }));
}

TEST_F(igmp_querier_timers, general_query_has_code_100_and_no_group) {
  when_ticked();
  then({general_query("lan1"), general_query("br0")});
  ASSERT_EQ(Kernel.frames.size(), 2u);
  EXPECT_EQ(hex_text(Kernel.frames[0].data(), 8), "1164ee9b00000000");
  EXPECT_EQ(Kernel.frames[0], Kernel.frames[1]);
}

TEST_F(igmp_querier_timers, upstream_interface_is_passed_over) {
  wan0->is_querier = 0;
  wan0->other_querier_timer = 5;
  given_group(wan0, group_address)->group_timer = 0;
  when_ticked();
  then({general_query("lan1"), general_query("br0")});
  EXPECT_EQ(wan0->other_querier_timer, 5);
}

TEST_F(igmp_querier_timers, non_querier_takes_the_role_back_and_queries_on_the_tick_after) {
  lan1->query_timer = 100000;
  br0->is_querier = 0;
  br0->other_querier_timer = 300;
  when_ticked(300);
  then({});
  EXPECT_EQ(br0->other_querier_timer, 0);
  when_ticked();
  then({logged_debug(pass, "Interface br0 We are now the querier.")});
  EXPECT_EQ(br0->is_querier, 1);
  when_ticked();
  then({general_query("br0")});
}

TEST_F(igmp_querier_timers, querier_role_other_than_0_and_1_waits_like_a_non_querier_and_answers_leaves) {
  lan1->query_timer = 100000;
  br0->is_querier = 2;
  br0->other_querier_timer = 1;
  when_ticked();
  then({});
  EXPECT_EQ(br0->other_querier_timer, 0);
  when([&] { igmp_router_send_query(br0, 10, word(group_address)); });
  then({sent("br0", group_address)});
  when_ticked();
  then({logged_debug(pass, "Interface br0 We are now the querier.")});
  EXPECT_EQ(br0->is_querier, 1);
}

} // namespace

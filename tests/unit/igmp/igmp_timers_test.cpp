// One tick: group timers, last-member queries, and the queries and records that they send.
#include "igmp/igmp_timers.h"

#include "fixture.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_leave.h"
#include "igmp/igmp_report.h"
#include "igmp/igmp_retransmission.h"
#include "tests/support/failing_unlink.h"
#include "tests/support/request_text.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char pass[] = "igmp_router_timer_expired";
constexpr char retransmission[] = "igmp_router_retransmit_timer_expired";
constexpr char group_timer[] = "igmp_router_group_timer_expired";
constexpr char v1_timer[] = "igmp_router_v1_host_timer_expired";
constexpr char drop[] = "igmp_proxy_drop_membership";
constexpr char leave_record[] = "/tmp/igmprt_leave_record";
constexpr char group_address[] = "239.1.2.3";

std::string sent(const std::string &interface, const std::string &to) {
  return "sendto(" + interface + ", 8 bytes) to=" + to + " port=0";
}

// What leaving upstream for the test's group leaves in the transcript.
lines leave_lines() {
  std::string no_outputs;
  for (int i = 0; i < 32; ++i) {
    no_outputs += (i == 0 ? "" : ",") + std::to_string(i) + ":0";
  }
  return {
      logged_debug(drop, "Drop membership for Group: 239.1.2.3 on upstream"),
      "setsockopt(wan0, IP_DROP_MEMBERSHIP) group=239.1.2.3 address=192.0.2.2 ifindex=2",
      logged_debug(drop, "MRT_DEL_MFC: origin=0.0.0.0, mcastgrp=239.1.2.3, parent=2"),
      "setsockopt(igmp, MRT_DEL_MFC) origin=0.0.0.0 group=239.1.2.3 parent=2 ttls={" + no_outputs + "}",
  };
}

std::string no_members_line(const char *function) {
  return logged_debug(function, "Interface: br0 Group: " + octets_text(group_address) + " State = No members present.");
}

const lines record_lines{
    "open(/tmp/igmprt_leave_record, O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)",
    "system(killall -USR1 igmp_snooping)",
};

// No general query disturbs these: the next one is far away.
struct igmp_group_timers : igmp_fixture {
  igmp_group_timers() {
    br0->query_timer = 100000;
    lan1->query_timer = 100000;
  }

  void then_ended_by_group_timer() {
    lines expected{
        logged_debug(group_timer, "Group timer expired."),
        "| Group timer expired.",
        logged_debug(group_timer, "igmp_snooping_leave, host=0.0.0.0, group=239.1.2.3"),
    };
    expected.insert(expected.end(), record_lines.begin(), record_lines.end());
    for (const std::string &line : leave_lines()) {
      expected.push_back(line);
    }
    expected.push_back(no_members_line(group_timer));
    then(expected);
  }
};

struct tick_row {
  std::int32_t from;
  int group_timer;
  int v1_host_timer;
  int retransmit_timer;
  int queries;
  std::int32_t to;
  int group_timer_after;
  int v1_host_timer_after;
  int retransmit_timer_after;
  int active_seconds;
  int queries_sent;
  bool is_snooper_told;
};

const std::vector<tick_row> tick_rows{
    // Version 2 members: only the group timer runs.
    {1, 350, 9, 9, 0, 1, 349, 9, 9, 1, 0, false},
    {1, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, false},
    {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, true},
    // Version 1 members: both timers run; the version 1 state ends first.
    {2, 350, 350, 0, 0, 2, 349, 349, 0, 1, 0, false},
    {2, 350, 1, 0, 0, 2, 349, 0, 0, 1, 0, false},
    {2, 350, 0, 0, 0, 1, 349, 0, 0, 1, 0, false},
    {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, true},
    {2, 0, 5, 0, 0, 0, 0, 4, 0, 0, 0, true},
    // Checking membership: only the retransmission timer runs.
    {3, 2, 5, 10, 2, 3, 2, 5, 9, 0, 0, false},
    {3, 2, 5, 1, 2, 3, 2, 5, 0, 0, 0, false},
    {3, 2, 5, 0, 2, 3, 2, 5, 1, 0, 1, false},
    {3, 0, 0, 0, 1, 3, 0, 0, 10, 0, 1, false},
    {3, 350, 5, 0, 0, 0, 350, 5, 0, 0, 0, false},
};

TEST_F(igmp_group_timers, every_state_follows_every_tick) {
  for (std::size_t i = 0; i < tick_rows.size(); ++i) {
    SCOPED_TRACE("row " + std::to_string(i));
    const tick_row &row = tick_rows[i];
    Kernel.commands.clear();
    igmp_group *group = given_group(br0, "239.0.0." + std::to_string(i));
    if (row.from == IGMP_GROUP_CHECKING_MEMBERSHIP) {
      given_checking(group, row.queries, 0);
    }
    group->state = row.from;
    group->group_timer = row.group_timer;
    group->v1_host_timer = row.v1_host_timer;
    group->retransmit_timer = row.retransmit_timer;
    when_ticked();
    int queries_sent = 0;
    for (const std::string &line : take_transcript()) {
      queries_sent += line.rfind("sendto", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(group->state, row.to);
    EXPECT_EQ(group->group_timer, row.group_timer_after);
    EXPECT_EQ(group->v1_host_timer, row.v1_host_timer_after);
    EXPECT_EQ(group->retransmit_timer, row.retransmit_timer_after);
    EXPECT_EQ(group->active_seconds, row.active_seconds);
    EXPECT_EQ(queries_sent, row.queries_sent);
    EXPECT_EQ(Kernel.commands.size(), row.is_snooper_told ? 1u : 0u);
    EXPECT_EQ(length(br0->groups), row.to == 0 ? 0 : 1);
    if (row.to != 0) {
      when([&] {
        list_remove_node(&br0->groups, &group->link);
        igmp_release_group(group);
      });
    }
  }
}

TEST_F(igmp_group_timers, silent_group_ends_after_351_ticks_and_the_snooper_is_signalled) {
  given_group(br0, group_address);
  when_ticked(350);
  then({});
  EXPECT_EQ(igmp_find_group(br0, word(group_address))->active_seconds, 350);
  when_ticked();
  then_ended_by_group_timer();
  EXPECT_EQ(file_contents(leave_record), "grp=239.1.2.3\n");
  EXPECT_EQ(length(br0->groups), 0);
  EXPECT_EQ(br0->timeout_count, 0); // kept at 0 on this side
}

TEST_F(igmp_group_timers, version_1_group_turns_to_version_2_when_its_host_timer_ends) {
  igmp_group *group = given_group(br0, group_address, IGMP_GROUP_V1_MEMBERS_PRESENT);
  group->v1_host_timer = 0;
  when_ticked();
  then({logged_debug(v1_timer, "IGMP v1 host timer expired.")});
  EXPECT_EQ(group->state, IGMP_GROUP_MEMBERS_PRESENT);
  EXPECT_EQ(group->group_timer, 349);
}

TEST_F(igmp_group_timers, version_1_group_whose_timers_end_together_ends_in_one_pass) {
  igmp_group *group = given_group(br0, group_address, IGMP_GROUP_V1_MEMBERS_PRESENT);
  group->v1_host_timer = 0;
  group->group_timer = 0;
  when_ticked();
  then_in_order({
      logged_debug(v1_timer, "IGMP v1 host timer expired."),
      logged_debug(group_timer, "Group timer expired."),
      no_members_line(group_timer),
  });
}

TEST_F(igmp_group_timers, host_timer_that_ends_in_another_state_is_an_error) {
  igmp_group *group = given_group(br0, group_address);
  when([&] { igmp_router_v1_host_timer_expired(br0, group); });
  then({logged_error(v1_timer, "V1 host timer expired but group: " + octets_text(group_address) +
                                   " for Interface: br0 in Members Present state.")});
  group->state = 5;
  run([&] { igmp_router_v1_host_timer_expired(br0, group); });
  then({
      logged_error("getGroupState", "Incorrect IGMP router state :5."),
      logged_error(v1_timer,
                   "V1 host timer expired but group: " + octets_text(group_address) + " for Interface: br0 in (null)."),
  });
}

TEST_F(igmp_group_timers, unanswered_leave_is_queried_twice_and_ends_without_telling_the_snooper) {
  given_group(br0, group_address);
  when([&] { igmp_router_leave_handler(br0, word(group_address)); });
  const auto countdown_line = [](int value) {
    return logged_debug(retransmission,
                        "group: " + octets_text(group_address) + ", retransmit_timer = " + std::to_string(value));
  };
  when_ticked(); // 1
  then({
      logged_debug(retransmission, "enter"),
      sent("br0", group_address),
      logged_debug(retransmission, "set query interval."),
  });
  when_ticked(); // 2
  then({countdown_line(1)});
  when_ticked(); // 3
  then({
      logged_debug(retransmission, "enter"),
      sent("br0", group_address),
      logged_debug(retransmission, "set query interval."),
      logged_debug(retransmission, "set 10s query interval."),
  });
  for (int value = 10; value >= 1; --value) { // 4 to 13
    when_ticked();
    then({countdown_line(value)});
  }
  when_ticked(); // 14
  lines expected{logged_debug(retransmission, "enter")};
  for (const std::string &line : leave_lines()) {
    expected.push_back(line);
  }
  expected.push_back(no_members_line(retransmission));
  then(expected);
  EXPECT_TRUE(Kernel.commands.empty());
  EXPECT_EQ(file_contents(leave_record), std::nullopt);
  EXPECT_EQ(hex_text(Kernel.frames[0].data(), 8), "110afdf0ef010203");
}

TEST_F(igmp_group_timers, non_querier_sends_no_last_member_query_and_still_ends_the_group_in_time) {
  br0->is_querier = 0;
  br0->other_querier_timer = 300;
  given_group(br0, group_address);
  when([&] { igmp_router_leave_handler(br0, word(group_address)); });
  when_ticked(13);
  then_requests({});
  EXPECT_NE(igmp_find_group(br0, word(group_address)), nullptr);
  when_ticked();
  then_anything();
  EXPECT_EQ(igmp_find_group(br0, word(group_address)), nullptr);
}

TEST_F(igmp_group_timers, report_between_the_queries_keeps_the_group) {
  igmp_group *group = given_group(br0, group_address);
  when([&] { igmp_router_leave_handler(br0, word(group_address)); });
  when_ticked();
  when([&] { igmp_router_version2_report_handler(br0, word(group_address)); });
  then_anything();
  EXPECT_EQ(length(IgmpRouter.free_queries), IGMP_QUERY_POOL_SIZE);
  when_ticked(20);
  then({});
  EXPECT_EQ(group->state, IGMP_GROUP_MEMBERS_PRESENT);
}

TEST_F(igmp_group_timers, checking_freezes_the_other_timers) {
  igmp_group *group = given_group(br0, group_address);
  given_checking(group, 1, 10);
  group->group_timer = 2;
  group->v1_host_timer = 4;
  when_ticked(10);
  then_anything();
  EXPECT_EQ(group->group_timer, 2);
  EXPECT_EQ(group->v1_host_timer, 4);
  EXPECT_EQ(group->active_seconds, 0);
}

TEST_F(igmp_group_timers, group_in_an_invalid_state_ends_the_whole_pass) {
  given_group(br0, "239.7.7.7")->group_timer = 100;
  given_group(lan1, "239.6.6.6")->group_timer = 100; // behind the broken one
  igmp_group *broken = given_group(lan1, group_address);
  broken->state = 4;
  run([] { igmp_router_timer_expired(); });
  then({logged_error(pass, "Invalid group state 4 for group: " + octets_text(group_address) + " interface: lan1.")});
  EXPECT_EQ(igmp_find_group(lan1, word("239.6.6.6"))->group_timer, 100);
  EXPECT_EQ(igmp_find_group(br0, word("239.7.7.7"))->group_timer, 100);
  EXPECT_EQ(br0->query_timer, 100000);
  EXPECT_EQ(lan1->query_timer, 99999);
}

TEST_F(igmp_group_timers, group_in_the_free_state_is_passed_over) {
  given_group(br0, "239.7.7.7")->group_timer = 100;
  given_group(br0, group_address)->state = IGMP_GROUP_NO_MEMBERS;
  run([] { igmp_router_timer_expired(); });
  then({});
  EXPECT_EQ(igmp_find_group(br0, word("239.7.7.7"))->group_timer, 99);
}

TEST_F(igmp_group_timers, group_that_cannot_be_unlinked_stays_as_it_is) {
  igmp_group *group = given_group(br0, group_address);
  bool is_ended = true;
  when([&] { is_ended = igmp_end_group(IGMP_STEP_OF(retransmission), lan1, group); }); // not on that list
  EXPECT_FALSE(is_ended);
  then({logged_error(retransmission, "Group Removal of " + octets_text(group_address) + " unsuccesful.")});
  EXPECT_EQ(group->state, IGMP_GROUP_MEMBERS_PRESENT);
  given_group(lan1, "239.9.9.9");
  group->group_timer = 0;
  when([&] { is_ended = igmp_router_group_timer_expired(lan1, group); });
  EXPECT_FALSE(is_ended);
  then_in_order({logged_error(group_timer, "Group Removal of " + octets_text(group_address) + " unsuccesful.")});
  given_checking(group, 0, 0);
  when([&] { is_ended = igmp_router_retransmit_timer_expired(lan1, group); });
  EXPECT_FALSE(is_ended);
  then_in_order({logged_error(retransmission, "Group Removal of " + octets_text(group_address) + " unsuccesful.")});
}

TEST_F(igmp_group_timers, pass_goes_on_with_the_next_interface_when_a_group_cannot_be_unlinked) {
  for (const bool is_checked : {false, true}) {
    igmp_group *behind = given_group(lan1, "239.6.6.6");
    igmp_group *stuck = given_group(lan1, group_address);
    igmp_group *elsewhere = given_group(br0, "239.7.7.7");
    stuck->group_timer = 0;
    if (is_checked) {
      given_checking(stuck, 0, 0);
    }
    UnlinksToFail = 1;
    when_ticked();
    UnlinksToFail = 0;
    then_in_order({logged_error(is_checked ? retransmission : group_timer,
                                "Group Removal of " + octets_text(group_address) + " unsuccesful.")});
    EXPECT_EQ(behind->group_timer, 350);
    EXPECT_EQ(elsewhere->group_timer, 349);
    EXPECT_EQ(length(lan1->groups), 2);
    when([&] {
      for (igmp_group *group : {behind, stuck, elsewhere}) {
        list_remove_node(group == elsewhere ? &br0->groups : &lan1->groups, &group->link);
        igmp_release_group(group);
      }
    });
  }
}

TEST_F(igmp_group_timers, groups_that_end_in_one_pass_do_not_disturb_their_neighbours) {
  for (int i = 0; i < 20; ++i) {
    igmp_group *group = given_group(br0, "239.3.3." + std::to_string(i));
    group->group_timer = i % 3 == 0 ? 0 : 50;
    if (i % 3 == 1) {
      given_checking(group, 0, 0);
    }
  }
  when_ticked();
  then_anything();
  EXPECT_EQ(length(br0->groups), 6);
  for (auto *group = list_first<igmp_group>(&br0->groups); group != nullptr; group = list_after(group)) {
    EXPECT_EQ(group->group_timer, 49);
  }
}

TEST_F(igmp_group_timers, leftover_queries_of_an_expired_group_come_back) {
  igmp_group *group = given_group(br0, group_address);
  given_checking(group, 1, 0);
  group->state = IGMP_GROUP_MEMBERS_PRESENT; // as a leave that found too few queries leaves it
  group->group_timer = 0;
  when_ticked();
  then_ended_by_group_timer();
  EXPECT_EQ(length(IgmpRouter.free_queries), IGMP_QUERY_POOL_SIZE);
}

TEST_F(igmp_group_timers, leave_record_that_cannot_be_opened_wakes_nobody_and_the_group_still_ends) {
  given_failure("open(", EACCES);
  given_group(br0, group_address)->group_timer = 0;
  when_ticked();
  then_in_order({record_lines[0], no_members_line(group_timer)});
  EXPECT_TRUE(Kernel.commands.empty());
}

} // namespace

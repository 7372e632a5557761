// Ticks of one second, with the proxy of fixture.h: lan1 comes before br0 in each pass.
#include "mld/mld_timers.h"

#include "core/memory.h"
#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_query.h"

#include <algorithm>
#include <cerrno>

namespace {

using namespace scripted;

constexpr char timer[] = "mld_router_timer_expired";
constexpr int longest_query_wait = 124;

const std::string empty_line = "| ";

struct mld_timers : mld_fixture {
  // No general query for the next two minutes.
  void given_silence() { lan1->query_timer = br0->query_timer = longest_query_wait; }

  // Ticks in silence, however long; for timers that take minutes.
  void when_ticked_in_silence(int ticks) {
    for (int i = 0; i < ticks; ++i) {
      given_silence();
      when_ticked();
    }
  }

  // The tick, counted from 1, in each of which br0 or lan1 sent a query frame.
  std::vector<int> when_counting_queries(const mld_interface *intr, int ticks) {
    std::vector<int> sent;
    const std::string its = " ifindex=" + std::to_string(intr->ifindex) + " ";
    for (int tick = 1; tick <= ticks; ++tick) {
      when_ticked();
      const lines happened = take_transcript();
      if (std::any_of(happened.begin(), happened.end(), [&](const std::string &line) {
            return line.rfind("sendto(", 0) == 0 && line.find(its) != std::string::npos;
          })) {
        sent.push_back(tick);
      }
    }
    return sent;
  }
};

lines general_query(const std::string &name, int index, const std::string &descriptor) {
  const std::string number = std::to_string(index);
  return {
      empty_line,
      empty_line,
      logged_debug(timer, "[QUERY TIMER EXPIRED] interface: " + name + "."),
      "socket(AF_PACKET, SOCK_RAW, 58)",
      "setsockopt(" + name + ", IPV6_MULTICAST_IF) = " + number,
      "sendto(" + descriptor + ", 90 bytes) protocol=58 ifindex=" + number +
          " hatype=1 pkttype=2 mac=33:33:00:00:00:01",
      logged_debug("mld_router_v2_send_query", "[QUERY] group: " + log_text("::")),
      "close(" + descriptor + ")",
  };
}

// General queries.

TEST_F(mld_timers, first_pass_queries_on_every_downstream_interface) {
  when_ticked();
  lines expected = general_query("lan1", 4, "fd 1100");
  const lines second = general_query("br0", 3, "fd 1101");
  expected.insert(expected.end(), second.begin(), second.end());
  then(expected);
  EXPECT_EQ(lan1->query_timer, 29);
  EXPECT_EQ(br0->query_timer, 124);
  EXPECT_EQ(MldStartUpQueryIsSend, 1u);
}

TEST_F(mld_timers, only_the_very_first_query_is_repeated_after_thirty_seconds) {
  EXPECT_EQ(when_counting_queries(lan1, 300), (std::vector<int>{1, 31, 156, 281}));
}

TEST_F(mld_timers, other_interfaces_query_every_125_seconds) {
  EXPECT_EQ(when_counting_queries(br0, 300), (std::vector<int>{1, 126, 251}));
}

TEST_F(mld_timers, query_that_cannot_be_sent_is_not_repeated_early) {
  given_failure("socket(AF_PACKET", EMFILE, -1);
  when_ticked();
  EXPECT_EQ(lan1->query_timer, 29);
  EXPECT_EQ(br0->query_timer, 124);
  then_anything();
}

// Election.

TEST_F(mld_timers, interface_with_another_querier_counts_down_and_sends_nothing) {
  given_silence();
  br0->is_querier = 0;
  br0->query_timer = 0;
  br0->other_querier_timer = 2;
  when_ticked();
  then({logged_debug(timer, "Querier Present Timer = 2")});
  when_ticked();
  then({logged_debug(timer, "Querier Present Timer = 1")});
  EXPECT_EQ(br0->other_querier_timer, 0);
  EXPECT_EQ(br0->is_querier, 0u);
}

TEST_F(mld_timers, querier_role_is_taken_back_and_used_in_the_same_pass) {
  given_silence();
  br0->is_querier = 0;
  br0->query_timer = 0;
  when_ticked();
  lines expected{logged_debug(timer, "We are now the querier on network br0 .")};
  const lines query = general_query("br0", 3, "fd 1100");
  expected.insert(expected.end(), query.begin(), query.end());
  then(expected);
  EXPECT_EQ(br0->is_querier, 1u);
}

TEST_F(mld_timers, querier_role_comes_back_301_passes_after_the_last_foreign_query) {
  br0->is_querier = 0;
  br0->other_querier_timer = 300;
  when_ticked_in_silence(300);
  EXPECT_EQ(br0->is_querier, 0u);
  when_ticked_in_silence(1);
  EXPECT_EQ(br0->is_querier, 1u);
  then_anything();
}

// Only role 0 holds back the queries of a leave; only role 1 runs the timer of the general query. `run`, not `when`: no
// code sets another role, and the invariants would complain.
TEST_F(mld_timers, querier_role_other_than_0_and_1_waits_like_a_non_querier_and_answers_leaves) {
  given_silence();
  br0->is_querier = 2;
  br0->query_timer = 0;
  br0->other_querier_timer = 5;
  run(mld_router_timer_expired);
  then({logged_debug(timer, "Querier Present Timer = 5")});
  EXPECT_EQ(br0->is_querier, 2);
  EXPECT_EQ(br0->query_timer, 0);
  run([&] { mld_router_v2_send_query(br0, 100, address("ff0e::1")); });
  then_in_order({logged_debug("mld_router_v2_send_query", "[QUERY] group: " + log_text("ff0e::1"))});
  EXPECT_EQ(Kernel.frames.size(), 1u);
  br0->other_querier_timer = 0;
  when_ticked();
  then_anything();
  EXPECT_EQ(br0->is_querier, 1);
}

TEST_F(mld_timers, query_timer_rests_while_another_router_is_querier) {
  given_silence();
  br0->is_querier = 0;
  br0->query_timer = 50;
  br0->other_querier_timer = 300;
  when_ticked(10);
  EXPECT_EQ(br0->query_timer, 50);
  EXPECT_EQ(lan1->query_timer, longest_query_wait - 10);
  then_anything();
}

TEST_F(mld_timers, group_and_source_timers_run_without_the_querier_role) {
  given_silence();
  br0->is_querier = 0;
  br0->other_querier_timer = 300;
  const mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  when_ticked(5);
  EXPECT_EQ(group->group_timer, 345);
  EXPECT_EQ(group->sources[0].source_timer, 355);
  then_anything();
}

TEST_F(mld_timers, upstream_interface_is_passed_over) {
  given_silence();
  wan0->query_timer = 0;
  wan0->is_querier = 0;
  wan0->other_querier_timer = 7;
  const mld_group *group = given_group(wan0, "ff0e::1");
  when_ticked();
  then({});
  EXPECT_EQ(wan0->other_querier_timer, 7);
  EXPECT_EQ(group->group_timer, 350);
}

// Scratch memory.

TEST_F(mld_timers, every_pass_allocates_and_frees_its_scratch_record) {
  given_silence();
  given_group(br0, "ff0e::1", {"2001:db8::1"});
  const int mallocs = malloc_counter;
  const int frees = free_counter;
  const int bytes = malloced_size;
  when_ticked(3);
  EXPECT_EQ(malloc_counter, mallocs + 3);
  EXPECT_EQ(free_counter, frees + 3);
  EXPECT_EQ(malloced_size, bytes + 3 * 36);
  then({});
}

TEST_F(mld_timers, pass_without_memory_does_nothing) {
  br0->is_querier = 0;
  const mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_failure("malloc(36)", ENOMEM);
  when_ticked();
  then({logged_error(timer, "Unable to allocate memory for MLD group record.")});
  EXPECT_EQ(group->group_timer, 350);
  EXPECT_EQ(br0->query_timer, 0);
}

// Group timers.

const std::string leave_record_opened =
    "open(/tmp/tarnwick_leave_record, O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)";

lines expired_on_br0(const std::string &group) {
  constexpr char expired[] = "mld_router_group_timer_expired";
  constexpr char drop[] = "mld_proxy_drop_membership";
  return {
      logged_debug(expired, "Group timer expired."),
      leave_record_opened,
      "system(killall -USR2 igmp_snooping)",
      "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=" + group + " ifindex=2",
      logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP"),
      logged_debug(expired, "interface:br0 group: " + log_text(group) + " state = No members present."),
  };
}

TEST_F(mld_timers, group_whose_timer_ran_out_is_left_and_the_snooping_program_signalled) {
  given_silence();
  mld_group *group = given_group(br0, "ff0e::1");
  group->group_timer = 0;
  when_ticked();
  then(expired_on_br0("ff0e::1"));
  EXPECT_EQ(file_contents("/tmp/tarnwick_leave_record"), "grp=ff0e::1\n");
  EXPECT_EQ(list_get_head(&br0->groups), nullptr);
  EXPECT_EQ(list_get_head(&MldRouter.free_groups), &group->link);
  EXPECT_EQ(group->state, MLD_GROUP_NO_MEMBERS);
}

TEST_F(mld_timers, group_without_reports_lives_for_350_passes) {
  given_group(br0, "ff0e::1");
  when_ticked_in_silence(349);
  EXPECT_EQ(br0->timeout_count, 0u);
  when_ticked_in_silence(1);
  EXPECT_EQ(br0->timeout_count, 1u) << "counted when the timer reaches zero";
  EXPECT_EQ(length(br0->groups), 1);
  then({});
  when_ticked_in_silence(1);
  then(expired_on_br0("ff0e::1"));
  EXPECT_EQ(br0->timeout_count, 1u);
  EXPECT_EQ(length(br0->groups), 0);
}

TEST_F(mld_timers, mldv1_listener_that_goes_away_is_noticed_by_its_group_timer_alone) {
  given_silence();
  when_received(mldv1_message(131, "ff0e::1"), "fe80::99", 3);
  given_silence();
  then_anything();
  when_ticked_in_silence(350);
  then({});
  when_ticked_in_silence(1);
  then(expired_on_br0("ff0e::1"));
}

TEST_F(mld_timers, groups_that_run_out_together_all_end_in_one_pass) {
  given_silence();
  for (const char *group : {"ff0e::3", "ff0e::2", "ff0e::1"}) {
    given_group(br0, group)->group_timer = 0;
  }
  mld_group *living = given_group(br0, "ff0e::4");
  when_ticked();
  EXPECT_EQ(length(br0->groups), 1);
  EXPECT_EQ(living->group_timer, 349);
  EXPECT_EQ(Kernel.commands.size(), 3u);
  then_anything();
}

TEST_F(mld_timers, queries_of_a_group_that_runs_out_go_back_in_either_state) {
  given_silence();
  mld_group *group = given_group(br0, "ff0e::1");
  given_checking(group, 3, 0);
  group->state = MLD_GROUP_MEMBERS_PRESENT;
  group->group_timer = 0;
  when_ticked();
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
  group = given_group(br0, "ff0e::1");
  given_checking(group, 3, 0);
  when([&] { EXPECT_TRUE(mld_router_group_timer_expired(br0, group)); });
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
  then_anything();
}

TEST_F(mld_timers, group_ends_although_the_snooping_program_cannot_be_signalled) {
  given_silence();
  given_group(br0, "ff0e::1")->group_timer = 0;
  given_failure("open(", EROFS);
  when_ticked();
  lines expected = expired_on_br0("ff0e::1");
  expected[2] = logged_error("mld_snooping_leave", "Open file \"/tmp/tarnwick_leave_record\" failed.");
  then(expected);
  EXPECT_EQ(length(br0->groups), 0);
}

TEST_F(mld_timers, group_that_cannot_be_unlinked_stays_where_it_is_but_gives_its_queries_back) {
  given_group(br0, "ff0e::2");
  mld_group *elsewhere = given_group(lan1, "ff0e::1");
  given_checking(elsewhere, 2, 0);
  bool is_ended = true;
  when([&] { is_ended = mld_router_group_timer_expired(br0, elsewhere); });
  EXPECT_FALSE(is_ended);
  then({
      logged_debug("mld_router_group_timer_expired", "Group timer expired."),
      leave_record_opened,
      "system(killall -USR2 igmp_snooping)",
      logged_error("mld_router_group_timer_expired", "Group Removal of " + log_text("ff0e::1") + " unsuccesful."),
  });
  EXPECT_EQ(elsewhere->state, MLD_GROUP_CHECKING_MEMBERSHIP);
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
}

// States.

TEST_F(mld_timers, state_that_makes_no_sense_ends_the_whole_pass) {
  given_silence();
  mld_group *senseless = given_group(lan1, "ff0e::1");
  const mld_group *on_br0 = given_group(br0, "ff0e::2");
  senseless->state = 3;
  run([] { mld_router_timer_expired(); });
  then({logged_error(timer, "Invalid group state 3 for group:" + log_text("ff0e::1") + " interface:lan1.")});
  EXPECT_EQ(on_br0->group_timer, 350);
  EXPECT_EQ(br0->query_timer, longest_query_wait);
  EXPECT_EQ(malloc_counter - free_counter, 359) << "the scratch record is freed";
}

// No path leaves a group in this state on a list; should one, the pass still ends.
TEST_F(mld_timers, group_in_state_zero_does_not_hold_up_the_pass) {
  given_silence();
  const mld_group *behind = given_group(br0, "ff0e::2");
  given_group(br0, "ff0e::1")->state = MLD_GROUP_NO_MEMBERS;
  run([] { mld_router_timer_expired(); });
  EXPECT_EQ(behind->group_timer, 349);
  then({});
}

TEST_F(mld_timers, group_being_checked_keeps_its_group_timer_and_ages_its_sources) {
  given_silence();
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  given_checking(group, 0, 10);
  group->group_timer = 2;
  group->sources[1].source_timer = 0;
  when_ticked(4);
  EXPECT_EQ(group->group_timer, 2);
  EXPECT_EQ(group->retransmit_timer, 6);
  EXPECT_EQ(group->sources[0].source_timer, 356);
  EXPECT_EQ(group->sources[1].source_timer, -4);
  EXPECT_EQ(group->active_seconds, 0);
  EXPECT_EQ(br0->timeout_count, 0u);
  then({});
}

TEST_F(mld_timers, due_query_ages_the_sources_before_it_lists_them) {
  given_silence();
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  given_checking(group, 1, 0);
  group->sources[0].source_timer = 1; // runs out in this very pass
  when_ticked();
  then({
      empty_line,
      empty_line,
      logged_debug(timer, "[GROUP STATE] MLD_ROUTER_CHECKING_MEMBERSHIP, retransmit_timer = 0"),
      "socket(AF_PACKET, SOCK_RAW, 58)",
      "setsockopt(br0, IPV6_MULTICAST_IF) = 3",
      "sendto(fd 1100, 106 bytes) protocol=58 ifindex=3 hatype=1 pkttype=2 mac=33:33:00:00:00:01",
      logged_debug("mld_router_v2_send_query_more_src", "[QUERY] group:  " + log_text("ff0e::1")),
      logged_debug("mld_router_v2_send_query_more_src", "[QUERY] source: " + log_text("2001:db8::1")),
      "close(fd 1100)",
  });
  EXPECT_EQ(group->sources[1].source_timer, 359);
}

TEST_F(mld_timers, groups_behind_one_that_is_checked_have_their_turn) {
  given_silence();
  const mld_group *third = given_group(br0, "ff0e::3");
  mld_group *ending = given_group(br0, "ff0e::2");
  given_checking(ending, 0, 0);
  mld_group *waiting = given_group(br0, "ff0e::1");
  given_checking(waiting, 1, 5);
  when_ticked();
  EXPECT_EQ(waiting->retransmit_timer, 4);
  EXPECT_EQ(length(br0->groups), 2) << "the second one ended";
  EXPECT_EQ(third->group_timer, 349);
  then_anything();
}

} // namespace

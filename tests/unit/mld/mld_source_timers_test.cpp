// Sources that run out by themselves while their group has members.
#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_timers.h"

#include <algorithm>
#include <cerrno>

namespace {

using namespace scripted;

constexpr char timer[] = "mld_router_timer_expired";
constexpr char leave[] = "mld_router_v2_leave_group";
constexpr char block[] = "mld_router_v2_block_old_sources";

struct mld_source_timers : mld_fixture {
  mld_source_timers() { lan1->query_timer = br0->query_timer = 124; }

  // A group whose slots have that many seconds left.
  mld_group *given_sources(const lines &sources, const std::vector<int> &timers) {
    mld_group *group = given_group(br0, "ff0e::1", sources);
    for (std::size_t i = 0; i < timers.size(); ++i) {
      group->sources[i].source_timer = timers[i];
    }
    return group;
  }
};

std::string expired(const std::string &source) {
  return logged_debug(timer, "source expired group: " + log_text("ff0e::1") + ", source: " + log_text(source));
}

lines sources_of(const mld_group *group) {
  lines texts;
  for (int i = 0; i < group->source_count; ++i) {
    texts.push_back(text(group->sources[static_cast<std::size_t>(i)].address));
  }
  return texts;
}

TEST_F(mld_source_timers, run_and_count_active_seconds_for_every_slot) {
  mld_group *group = given_sources({"2001:db8::1", "::"}, {360, 100});
  const mld_group *of_mldv1 = given_group(br0, "ff0e::2");
  when_ticked(7);
  EXPECT_EQ(group->sources[0].source_timer, 353);
  EXPECT_EQ(group->sources[1].source_timer, 93);
  EXPECT_EQ(group->active_seconds, 14);
  EXPECT_EQ(of_mldv1->active_seconds, 0);
  then({});
}

TEST_F(mld_source_timers, source_stays_in_its_last_second) {
  mld_group *group = given_sources({"2001:db8::1", "::"}, {2, 2});
  when_ticked();
  then({});
  EXPECT_EQ(group->state, MLD_GROUP_MEMBERS_PRESENT);
  EXPECT_EQ(sources_of(group), (lines{"2001:db8::1", "::"}));
}

TEST_F(mld_source_timers, wanted_source_that_runs_out_is_asked_for) {
  mld_group *group = given_sources({"2001:db8::1", "2001:db8::2"}, {1, 50});
  when_ticked();
  then({
      expired("2001:db8::1"),
      logged_debug("mld_router_host_lookup",
                   "host_address: " + log_text("::") + " source_address: " + log_text("2001:db8::1")),
      logged_debug(block, "Block the source: " + log_text("2001:db8::1")),
      logged_debug(block, "Add 1 queries to queue."),
      logged_debug(block, "group: " + log_text("ff0e::1") + ", set retransmit_timer = 1"),
  });
  EXPECT_EQ(group->state, MLD_GROUP_CHECKING_MEMBERSHIP);
  EXPECT_EQ(group->group_timer, 2);
  EXPECT_EQ(length(group->queries), 1);
  EXPECT_EQ(br0->timeout_count, 1u);
  EXPECT_EQ(text(mld_tmp_origin), "2001:db8::1");
  EXPECT_EQ(group->sources[1].source_timer, 49) << "the slots behind it have their turn";
}

TEST_F(mld_source_timers, blocked_source_that_runs_out_is_removed) {
  mld_group *group = given_sources({"2001:db8::1", "2001:db8::2"}, {1, 50});
  group->sources[0].forward = 0;
  when_ticked();
  then({
      expired("2001:db8::1"),
      "setsockopt(wan0, MCAST_BLOCK_SOURCE) group=ff0e::1 source=2001:db8::1 ifindex=2",
      logged_debug(leave, "setsockopt: MCAST_BLOCK_SOURCE"),
      logged_debug(leave, "Remove source: " + log_text("2001:db8::1") + " from group: " + log_text("ff0e::1")),
      logged_debug(leave, "Set group timer to 2"),
  });
  EXPECT_EQ(sources_of(group), lines{"2001:db8::2"});
  EXPECT_EQ(group->sources[0].source_timer, 0);
  EXPECT_EQ(group->state, MLD_GROUP_CHECKING_MEMBERSHIP);
  EXPECT_EQ(br0->leave_count, 0u) << "no host left";
}

TEST_F(mld_source_timers, any_source_slot_that_runs_out_is_removed) {
  mld_group *group = given_sources({"2001:db8::1", "::"}, {50, 1});
  when_ticked();
  then({
      expired("::"),
      logged_debug(leave, "Exist null source."),
      logged_debug(leave, "Remove source: " + log_text("::") + " from group: " + log_text("ff0e::1")),
      logged_debug(leave, "Set group timer to 2"),
  });
  EXPECT_EQ(sources_of(group), lines{"2001:db8::1"});
  EXPECT_EQ(mld_tmp_origin, In6AddrAny);
}

TEST_F(mld_source_timers, last_source_that_runs_out_ends_the_group) {
  mld_group *group = given_sources({"::"}, {1});
  const mld_group *behind = given_group(br0, "ff0e::2");
  given_group(br0, "ff0e::3");
  when_ticked();
  then({
      expired("::"),
      logged_debug(leave, "Last one source: " + log_text("::") + " in group: " + log_text("ff0e::1")),
      "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=ff0e::1 ifindex=2",
      logged_debug("mld_proxy_drop_membership", "setsockopt: IPV6_DROP_MEMBERSHIP"),
      "setsockopt(mld, MRT6_DEL_MFC) origin=:: group=ff0e::1 parent=2 outputs={}",
      logged_debug("mld_proxy_drop_membership", "setsockopt: MRT6_DEL_MFC"),
  });
  EXPECT_EQ(group->state, MLD_GROUP_NO_MEMBERS);
  EXPECT_EQ(group->link.next, nullptr) << "at the end of the pool";
  EXPECT_EQ(length(br0->groups), 2);
  EXPECT_EQ(behind->group_timer, 349) << "the groups behind it have their turn";
  EXPECT_TRUE(Kernel.commands.empty()) << "the snooping program is not told";
}

TEST_F(mld_source_timers, source_that_finds_no_query_runs_out_again_on_every_pass) {
  given_pool_left(&MldRouter.free_queries, 0);
  mld_group *group = given_sources({"2001:db8::1"}, {1});
  for (const int timer_left : {0, -1, -2}) {
    when_ticked();
    then_in_order({expired("2001:db8::1"), logged_error(block, " No more free queries available.")});
    EXPECT_EQ(group->sources[0].source_timer, timer_left);
    EXPECT_EQ(group->state, MLD_GROUP_MEMBERS_PRESENT);
  }
  EXPECT_EQ(br0->timeout_count, 3u);
  EXPECT_EQ(group->group_timer, 347);
}

TEST_F(mld_source_timers, timers_cleared_by_a_removal_run_out_in_the_same_pass) {
  mld_group *group = given_sources({"2001:db8::1", "2001:db8::2", "2001:db8::3"}, {1, 50, 60});
  group->sources[0].forward = 0;
  when_ticked();
  then_in_order({
      expired("2001:db8::1"),
      logged_debug(leave, "Remove source: " + log_text("2001:db8::1") + " from group: " + log_text("ff0e::1")),
      expired("2001:db8::3"), // moved to the second slot; the first one is not looked at again
      logged_debug(block, "Block the source: " + log_text("2001:db8::3")),
  });
  EXPECT_EQ(sources_of(group), (lines{"2001:db8::2", "2001:db8::3"}));
  EXPECT_EQ(group->sources[0].source_timer, 0);
  EXPECT_EQ(group->sources[1].source_timer, -1);
  EXPECT_EQ(br0->timeout_count, 2u);
  EXPECT_EQ(length(group->queries), 2);
}

TEST_F(mld_source_timers, all_slots_that_run_out_together_are_asked_for) {
  lines sources;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    sources.push_back("2001:db8::" + std::to_string(i));
  }
  mld_group *group = given_sources(sources, std::vector<int>(MLD_MAX_SOURCES, 1));
  when_ticked();
  EXPECT_EQ(length(group->queries), 10);
  EXPECT_EQ(br0->timeout_count, 10u);
  EXPECT_EQ(group->source_count, 10);
  then_anything();
}

TEST_F(mld_source_timers, group_whose_timer_ran_out_does_not_age_its_sources) {
  mld_group *group = given_sources({"2001:db8::1"}, {1});
  group->group_timer = 0;
  when_ticked();
  then_in_order({logged_debug("mld_router_group_timer_expired", "Group timer expired."),
                 "setsockopt(mld, MRT6_DEL_MFC) origin=2001:db8::1 group=ff0e::1 parent=2 outputs={}"});
  EXPECT_EQ(br0->timeout_count, 0u);
}

} // namespace

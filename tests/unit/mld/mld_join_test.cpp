// Joins for all sources: what an EXCLUDE record without sources does.
#include "mld/mld_join.h"

#include "fixture.h"
#include "mld/mld_group.h"

#include <cerrno>

namespace {

using namespace scripted;

struct mld_all_sources_join : mld_report_fixture {
  void when_joined(const std::string &group, const std::string &sender = "fe80::a") {
    owned_record given = record(4, group);
    when([&] { mld_router_v2_add_src_group(br0, given.view(), mld_joined_sources::all, address(sender)); });
  }

  // The sources of an idle group, none of them reported for a while.
  mld_group *given_idle_group(const lines &sources) {
    mld_group *group = given_group(br0, "ff0e::1", sources);
    group->group_timer = 7;
    for (mld_source &slot : mld_sources(group)) {
      slot.source_timer = 9;
    }
    return group;
  }
};

constexpr char add_src[] = "mld_router_v2_add_src_group";

lines group_dropped(const std::string &host = "fe80::a") {
  return together({{logged_debug(add_src, "group retransmit_timer < 0, drop this group: " + log_text("ff0e::1"))},
                   host_looked_up(host, "::")});
}

lines group_created(const std::string &host = "fe80::a") {
  return together({{
                       logged_debug(add_src, "add the gernel mcast " + log_text("ff0e::1")),
                       logged_debug(add_src, "group = " + log_text("ff0e::1")),
                   },
                   host_recorded("ff0e::1", host, "::"),
                   all_sources_joined("ff0e::1")});
}

std::string source_given_up(const std::string &source) {
  return logged_debug(add_src, "Block source: " + log_text(source) + " in group " + log_text("ff0e::1") + ".");
}

TEST_F(mld_all_sources_join, unknown_group_is_created_with_an_any_source_slot) {
  when_joined("ff0e::1");
  then(group_created());
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
  then_hosts(br0, {"ff0e::1 fe80::a ::"});
  const auto *group = list_first<mld_group>(&br0->groups);
  EXPECT_EQ(group->report_count, 1);
  EXPECT_EQ(group->owner, &MldRouter.upstream_name);
  EXPECT_EQ(br0->join_count, 1u);
}

TEST_F(mld_all_sources_join, groups_already_there_are_traced_before_the_new_one) {
  given_group(br0, "ff0e::2");
  given_group(br0, "ff0e::3");
  given_group(lan1, "ff0e::4");
  when_joined("ff0e::1");
  then_in_order({
      logged_debug(add_src, "add the gernel mcast " + log_text("ff0e::1")),
      logged_debug(add_src, "group database = " + log_text("ff0e::3")),
      logged_debug(add_src, "group database = " + log_text("ff0e::2")),
      logged_debug(add_src, "group = " + log_text("ff0e::1")),
  });
  then_groups(br0, {group_line("ff0e::1"), slot_line("::"), group_line("ff0e::3"), group_line("ff0e::2")});
}

TEST_F(mld_all_sources_join, idle_group_is_dropped_and_created_afresh) {
  mld_group *group = given_idle_group({"::"});
  given_host(br0, "ff0e::1", "fe80::a", "::");
  when_joined("ff0e::1");
  then(together({group_dropped(), left_upstream("ff0e::1", {"::"}), group_created()}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
  then_hosts(br0, {"ff0e::1 fe80::a ::"});
  EXPECT_EQ(list_first<mld_group>(&br0->groups), group); // the same record came back
  EXPECT_EQ(length(MldRouter.free_groups), MLD_GROUP_POOL_SIZE - 1);
  EXPECT_EQ(hosts_deleted, 1);
}

TEST_F(mld_all_sources_join, group_of_an_mldv1_host_is_dropped_and_created_with_a_slot) {
  given_idle_group({});
  when_joined("ff0e::1");
  then(together({group_dropped(), left_upstream("ff0e::1"), group_created()}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
}

TEST_F(mld_all_sources_join, live_sources_of_an_idle_group_are_not_left_one_by_one) {
  given_idle_group({"2001:db8::1", "2001:db8::2"});
  when_joined("ff0e::1");
  then(together({group_dropped(), left_upstream("ff0e::1", {"2001:db8::1", "2001:db8::2"}), group_created()}));
}

TEST_F(mld_all_sources_join, expired_sources_of_an_idle_group_are_left_one_by_one) {
  mld_group *group = given_idle_group({"2001:db8::1", "2001:db8::2", "2001:db8::3"});
  group->sources[0].source_timer = 0;
  group->sources[1].source_timer = 1; // in its last second, so not expired
  group->sources[2].source_timer = -3;
  when_joined("ff0e::1");
  then(together({group_dropped(),
                 left_upstream("ff0e::1", {"2001:db8::1", "2001:db8::2", "2001:db8::3"}),
                 {
                     source_given_up("2001:db8::1"),
                     source_request("MCAST_LEAVE_SOURCE_GROUP", "ff0e::1", "2001:db8::1"),
                     logged_debug(add_src, "setsockopt: MCAST_LEAVE_SOURCE_GROUP"),
                     source_given_up("2001:db8::3"),
                     source_request("MCAST_LEAVE_SOURCE_GROUP", "ff0e::1", "2001:db8::3"),
                     logged_debug(add_src, "setsockopt: MCAST_LEAVE_SOURCE_GROUP"),
                 },
                 group_created()}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
}

TEST_F(mld_all_sources_join, refused_leave_of_an_expired_source_is_logged_once) {
  mld_group *group = given_idle_group({"2001:db8::1", "2001:db8::2"});
  group->sources[0].source_timer = 0;
  given_failure("setsockopt(wan0, MCAST_LEAVE_SOURCE_GROUP)", EADDRNOTAVAIL);
  when_joined("ff0e::1");
  then(together({group_dropped(),
                 left_upstream("ff0e::1", {"2001:db8::1", "2001:db8::2"}),
                 {
                     source_given_up("2001:db8::1"),
                     source_request("MCAST_LEAVE_SOURCE_GROUP", "ff0e::1", "2001:db8::1"),
                     logged_error(add_src, "setsockopt: MCAST_LEAVE_SOURCE_GROUP fail!!!"),
                 },
                 group_created()}));
}

TEST_F(mld_all_sources_join, only_slot_that_expired_costs_one_more_look_into_the_host_table) {
  mld_group *group = given_idle_group({"2001:db8::1"});
  group->sources[0].source_timer = 0;
  when_joined("ff0e::1");
  then(together({group_dropped(),
                 left_upstream("ff0e::1", {"2001:db8::1"}),
                 {source_given_up("2001:db8::1")},
                 host_looked_up("fe80::a", "::"),
                 group_created()}));
}

TEST_F(mld_all_sources_join, right_after_a_leave_the_group_is_dropped_and_its_query_comes_back) {
  when_received(mldv2_report({{4, "ff0e::1"}, {3, "ff0e::1"}}), "fe80::a", 3);
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("::", 0)});
  when_joined("ff0e::1");
  then(together({group_dropped(),
                 left_upstream("ff0e::1", {"::"}),
                 {source_given_up("::")},
                 host_looked_up("fe80::a", "::"),
                 group_created()}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
  EXPECT_EQ(length(MldRouter.free_groups), MLD_GROUP_POOL_SIZE - 1);
}

TEST_F(mld_all_sources_join, number_decides_about_the_drop_and_not_whether_queries_wait) {
  const struct {
    int retransmit_timer;
    int queries;
    bool is_dropped;
  } rows[] = {{-1, 0, true}, {0, 0, true}, {0, 3, true}, {1, 0, false}, {1, 3, false}, {10, 0, false}};
  for (const auto &given : rows) {
    SCOPED_TRACE(testing::Message() << given.retransmit_timer << " " << given.queries);
    mld_group *group = given_idle_group({"::"});
    given_checking(group, given.queries, given.retransmit_timer);
    group->state = MLD_GROUP_MEMBERS_PRESENT;
    when_joined("ff0e::1");
    const lines happened = take_transcript();
    EXPECT_EQ(happened.front() == group_dropped().front(), given.is_dropped) << happened.front();
    mld_group *left = list_first<mld_group>(&br0->groups); // a dropped group is made anew, in another record
    mld_unlink_group(br0, left);
    mld_release_group(left);
  }
}

TEST_F(mld_all_sources_join, group_with_queries_pending_is_kept_and_refreshed) {
  mld_group *group = given_idle_group({"2001:db8::1", "::"});
  given_checking(group, 2, 1);
  group->sources[1] = {0, 0, address("::")}; // found although it ran out
  when_joined("ff0e::1");
  then(together({{logged_debug(add_src, "v2 update gernel mcast " + log_text("ff0e::1"))},
                 host_recorded("ff0e::1", "fe80::a", "::"),
                 all_sources_joined("ff0e::1")}));
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .retransmit = 1}), slot_line("2001:db8::1", 9),
                    slot_line("::")});
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
}

TEST_F(mld_all_sources_join, kept_group_without_an_any_source_slot_gets_one) {
  given_checking(given_idle_group({"2001:db8::1"}), 1, 1);
  when_joined("ff0e::1");
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .retransmit = 1}), slot_line("2001:db8::1", 9),
                    slot_line("::")});
}

TEST_F(mld_all_sources_join, kept_group_without_a_free_slot_is_joined_all_the_same) {
  lines ten;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    ten.push_back("2001:db8::" + std::to_string(i));
  }
  mld_group *group = given_idle_group(ten);
  given_checking(group, 1, 1);
  group->active_seconds = 1234;
  when_joined("ff0e::1");
  then_in_order(together({host_recorded("ff0e::1", "fe80::a", "::"), all_sources_joined("ff0e::1")}));
  EXPECT_EQ(group->source_count, MLD_MAX_SOURCES);
  EXPECT_EQ(group->group_timer, 350);
  EXPECT_EQ(group->active_seconds, 1234);
  EXPECT_EQ(group->report_count, 1);
}

TEST_F(mld_all_sources_join, queries_left_with_a_group_that_has_members_stay_until_it_goes) {
  mld_group *group = given_idle_group({"::"});
  given_checking(group, 2, 1);
  group->state = MLD_GROUP_MEMBERS_PRESENT;
  when_joined("ff0e::1");
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .retransmit = 1, .queries = 2}), slot_line("::")});
}

TEST_F(mld_all_sources_join, group_of_another_interface_keeps_the_upstream_membership) {
  given_group(lan1, "ff0e::1", {"::"});
  given_idle_group({"::"});
  when_joined("ff0e::1");
  then_in_order(
      together({group_dropped(),
                {logged_debug("mld_proxy_drop_membership",
                              "Group " + log_text("ff0e::1") + " on interface lan1 still there. Not dropping.")},
                host_recorded("ff0e::1", "fe80::a", "::"),
                all_sources_joined("ff0e::1", {"lan1", "br0"})}));
}

TEST_F(mld_all_sources_join, empty_pool_refuses_an_unknown_group) {
  given_pool_left(&MldRouter.free_groups, 0);
  when_joined("ff0e::1");
  then({
      logged_debug(add_src, "add the gernel mcast " + log_text("ff0e::1")),
      logged_error(add_src, "No more free group available. Dropping membership request."),
  });
  then_groups(br0, {});
  then_hosts(br0, {});
  EXPECT_EQ(br0->join_count, 1u);
}

TEST_F(mld_all_sources_join, empty_pool_does_not_keep_an_idle_group_from_coming_back) {
  given_idle_group({"::"});
  given_pool_left(&MldRouter.free_groups, 0);
  when_joined("ff0e::1");
  then(together({group_dropped(), left_upstream("ff0e::1", {"::"}), group_created()}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
}

TEST_F(mld_all_sources_join, a_thousand_refreshes_cost_no_group) {
  for (int i = 0; i < 1000; ++i) {
    when_received(mldv2_report({{2, "ff0e::1"}}), "fe80::a", 3);
    ASSERT_EQ(length(MldRouter.free_groups), MLD_GROUP_POOL_SIZE - 1) << i;
    ASSERT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE) << i;
    then_anything();
  }
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
  EXPECT_EQ(br0->join_count, 1000u);
  EXPECT_EQ(length(MldRouter.free_hosts), 0); // each refresh lost one, as long as there were any
}

TEST_F(mld_all_sources_join, refused_upstream_join_leaves_group_and_host_recorded) {
  given_failure("setsockopt(wan0", ENOBUFS, -1);
  when_joined("ff0e::1");
  then_in_order({logged_error("mld_proxy_add_membership", "setsockopt: IPV6_DROP_MEMBERSHIP fail!!!")});
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
  then_hosts(br0, {"ff0e::1 fe80::a ::"});
}

} // namespace

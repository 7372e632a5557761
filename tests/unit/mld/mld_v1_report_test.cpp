#include "mld/mld_v1_report.h"

#include "fixture.h"

#include <cerrno>

namespace {

using namespace scripted;

struct mld_v1_report : mld_report_fixture {
  void when_reported(mld_interface *intr, const std::string &group) {
    when([&] { mld_router_version1_report_handler(intr, address(group)); });
  }
};

constexpr char report[] = "mld_router_version1_report_handler";

std::string group_traced(const std::string &group) {
  return logged_debug(report, "[PACKET] group     : " + log_text(group));
}

TEST_F(mld_v1_report, new_group_is_recorded_and_joined) {
  when_received(mldv1_message(131, "ff0e::1"), "fe80::a", 3);
  then(together({received("fe80::a", 3, "[PACKET] icmp6_type: ICMPV6_MGM_REPORT"),
                 {group_traced("ff0e::1"), logged_debug(report, "Add the group membership: " + log_text("ff0e::1"))},
                 all_sources_joined("ff0e::1")}));
  then_groups(br0, {group_line("ff0e::1")});
  const auto *group = list_first<mld_group>(&br0->groups);
  EXPECT_EQ(group->report_count, 1);
  EXPECT_EQ(group->active_seconds, 0);
  EXPECT_EQ(group->source_count, 0);
  EXPECT_EQ(group->owner, &MldRouter.upstream_name);
}

TEST_F(mld_v1_report, reporter_is_not_recorded_as_host_nor_counted_as_join) {
  when_reported(br0, "ff0e::1");
  when_reported(br0, "ff0e::1");
  then_anything();
  then_hosts(br0, {});
  EXPECT_EQ(br0->join_count, 0u);
  EXPECT_EQ(length(MldRouter.free_hosts), MLD_HOST_POOL_SIZE);
}

TEST_F(mld_v1_report, known_group_is_refreshed_without_any_request) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->group_timer = 7;
  group->active_seconds = 12;
  group->sources[0].source_timer = 3;
  when_reported(br0, "ff0e::1");
  then({group_traced("ff0e::1"), logged_debug(report, "V2 group " + log_text("ff0e::1") + " timer refresh")});
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1", 3)});
  EXPECT_EQ(group->report_count, 2);
  EXPECT_EQ(group->active_seconds, 12);
}

TEST_F(mld_v1_report, newest_group_stands_first) {
  when_reported(br0, "ff0e::1");
  when_reported(br0, "ff0e::2");
  when_reported(br0, "ff0e::1");
  then_anything();
  then_groups(br0, {group_line("ff0e::2"), group_line("ff0e::1")});
}

TEST_F(mld_v1_report, report_cancels_the_queries_of_a_group_being_checked) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_checking(group, 3, 5);
  group->group_timer = 2;
  when_reported(br0, "ff0e::1");
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .retransmit = 5})});
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
}

TEST_F(mld_v1_report, queries_of_a_group_with_members_stay_with_it) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_checking(group, 2, 0);
  group->state = MLD_GROUP_MEMBERS_PRESENT;
  when_reported(br0, "ff0e::1");
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .queries = 2})});
}

TEST_F(mld_v1_report, report_is_lost_when_the_group_pool_is_empty) {
  given_group(br0, "ff0e::1");
  given_pool_left(&MldRouter.free_groups, 0);
  when_reported(br0, "ff0e::2");
  then({group_traced("ff0e::2"), logged_error(report, "No more free group available. Dropping membership request.")});
  then_groups(br0, {group_line("ff0e::1")});
}

TEST_F(mld_v1_report, group_129_is_refused_whichever_interface_has_the_others) {
  for (int i = 0; i < MLD_GROUP_POOL_SIZE; ++i) {
    given_group(i % 2 == 0 ? br0 : lan1, "ff0e::" + std::to_string(1000 + i));
  }
  when_reported(br0, "ff0e::1");
  then_in_order({logged_error(report, "No more free group available. Dropping membership request.")});
  EXPECT_EQ(length(br0->groups), MLD_GROUP_POOL_SIZE / 2);
}

TEST_F(mld_v1_report, only_link_local_scope_is_skipped) {
  for (const char *skipped : {"ff02::1:3", "ff02::", "ff02::1:ff00:1", "ff02:ffff::1"}) {
    when_reported(br0, skipped);
    then({logged_debug(report, "[PACKET] group     : " + log_text(skipped) + ", skip local mcast!")});
  }
  for (const char *kept : {"ff05::2", "ff12::", "ff01::1", "ff0e::1", "2001:db8::1"}) {
    when_reported(br0, kept);
    then(together({{group_traced(kept), logged_debug(report, "Add the group membership: " + log_text(kept))},
                   all_sources_joined(kept)}));
  }
}

TEST_F(mld_v1_report, group_of_two_interfaces_is_forwarded_to_both) {
  given_group(lan1, "ff0e::1");
  when_reported(br0, "ff0e::1");
  then(together({{group_traced("ff0e::1"), logged_debug(report, "Add the group membership: " + log_text("ff0e::1"))},
                 all_sources_joined("ff0e::1", {"lan1", "br0"})}));
  then_groups(br0, {group_line("ff0e::1")});
  then_groups(lan1, {group_line("ff0e::1")});
}

TEST_F(mld_v1_report, refused_join_leaves_the_group_recorded) {
  given_failure("setsockopt(wan0", ENOBUFS, 2);
  when_reported(br0, "ff0e::1");
  then_in_order({logged_error("mld_proxy_add_membership", "setsockopt: IPV6_DROP_MEMBERSHIP fail!!!")});
  then_groups(br0, {group_line("ff0e::1")});
}

TEST_F(mld_v1_report, recycled_record_keeps_nothing_of_its_former_group) {
  auto *stale = list_first<mld_group>(&MldRouter.free_groups);
  stale->retransmit_word = 9;
  stale->retransmit_timer = 9;
  stale->reserved_word = 9;
  stale->source_count = 9;
  stale->active_seconds = 9;
  stale->report_count = 9;
  when_reported(br0, "ff0e::1");
  then_anything();
  then_groups(br0, {group_line("ff0e::1")});
  EXPECT_EQ(stale, list_first<mld_group>(&br0->groups));
  EXPECT_EQ(stale->retransmit_word, 0u);
  EXPECT_EQ(stale->reserved_word, 0u);
  EXPECT_EQ(stale->active_seconds, 0);
  EXPECT_EQ(stale->report_count, 1);
}

} // namespace

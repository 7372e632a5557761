// Joins for listed sources: what an INCLUDE record with sources does.
#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_join.h"

#include <cerrno>

namespace {

using namespace scripted;

struct mld_listed_sources_join : mld_report_fixture {
  void when_joined(const lines &sources, const std::string &sender = "fe80::a") {
    owned_record given = record(3, "ff0e::1", sources);
    when([&] { mld_router_v2_add_src_group(br0, given.view(), mld_joined_sources::listed, address(sender)); });
  }
};

constexpr char add_src[] = "mld_router_v2_add_src_group";
constexpr char add_source[] = "mldv2_add_src_membership";

lines source_recorded_and_joined(const std::string &source, int block = 0) {
  return together({host_recorded("ff0e::1", "fe80::a", source), source_joined("ff0e::1", source, block)});
}

TEST_F(mld_listed_sources_join, unknown_group_is_created_with_its_sources) {
  when_joined({"2001:db8::1", "2001:db8::2"});
  then(together({source_recorded_and_joined("2001:db8::1"), source_recorded_and_joined("2001:db8::2")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2")});
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::1", "ff0e::1 fe80::a 2001:db8::2"});
  EXPECT_EQ(list_first<mld_group>(&br0->groups)->report_count, 1);
  EXPECT_EQ(br0->join_count, 1u);
}

TEST_F(mld_listed_sources_join, new_group_stands_first) {
  given_group(br0, "ff0e::2");
  when_joined({"2001:db8::1"});
  then_anything();
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), group_line("ff0e::2")});
}

TEST_F(mld_listed_sources_join, after_an_exclude_record_sources_start_as_unwanted) {
  MldBlock = 1;
  when_joined({"2001:db8::1", "2001:db8::2"});
  then(together({source_recorded_and_joined("2001:db8::1", 1), source_recorded_and_joined("2001:db8::2", 1)}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1", 360, 0), slot_line("2001:db8::2", 360, 0)});
}

TEST_F(mld_listed_sources_join, known_source_is_refreshed_and_joined_again) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->group_timer = 7;
  group->sources[0].source_timer = 9;
  group->sources[1].source_timer = 9;
  when_joined({"2001:db8::1"});
  then(source_recorded_and_joined("2001:db8::1"));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2", 9)});
  EXPECT_EQ(group->report_count, 1);
}

TEST_F(mld_listed_sources_join, unwanted_source_is_blocked_and_then_wanted_again) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->sources[0].forward = 0;
  when_joined({"2001:db8::1"});
  then_in_order({
      logged_debug(add_source, "MldBlock = 0"),
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
      logged_debug(add_source, "setsockopt: MCAST_BLOCK_SOURCE"),
      source_request("MCAST_JOIN_SOURCE_GROUP", "ff0e::1", "2001:db8::1"),
  });
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1")});
}

TEST_F(mld_listed_sources_join, known_source_becomes_wanted_even_after_an_exclude_record) {
  MldBlock = 1;
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->sources[0].forward = 0;
  when_joined({"2001:db8::1", "2001:db8::2"});
  then(together({source_recorded_and_joined("2001:db8::1", 1), source_recorded_and_joined("2001:db8::2", 1)}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2", 360, 0)});
}

TEST_F(mld_listed_sources_join, lasting_any_source_listener_covers_every_source) {
  for (const auto &[seconds, is_covered] : {std::pair{360, true}, {11, true}, {10, false}, {0, false}}) {
    SCOPED_TRACE(seconds);
    mld_group *group = given_group(br0, "ff0e::1", {"::", "2001:db8::1"});
    group->sources[0].source_timer = seconds;
    group->sources[1] = {0, 9, address("2001:db8::1")};
    MldBlock = 1;
    when_joined({"2001:db8::1", "2001:db8::2"});
    const lines happened = take_transcript();
    EXPECT_EQ(happened.empty(), is_covered);
    then_groups(br0, {group_line("ff0e::1"), slot_line("::", seconds), slot_line("2001:db8::1"),
                      slot_line("2001:db8::2", 360, 0)});
    EXPECT_EQ(length(br0->hosts) == 0, is_covered);
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_listed_sources_join, group_of_an_mldv1_host_gets_slots) {
  given_group(br0, "ff0e::1")->group_timer = 7;
  when_joined({"2001:db8::1"});
  then(source_recorded_and_joined("2001:db8::1"));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1")});
}

TEST_F(mld_listed_sources_join, queries_of_a_group_being_checked_go_back_but_its_state_stays) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_checking(group, 2, 5);
  when_joined({"2001:db8::1"});
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .retransmit = 5}), slot_line("2001:db8::1")});
}

TEST_F(mld_listed_sources_join, record_without_sources_only_counts) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_checking(group, 1, 5);
  group->group_timer = 2;
  when_joined({});
  then({});
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 5, .queries = 1}),
                    slot_line("2001:db8::1")});
  EXPECT_EQ(br0->join_count, 1u);
}

TEST_F(mld_listed_sources_join, eleventh_source_is_refused_and_overwrites_nothing) {
  lines twelve;
  for (int i = 1; i <= 12; ++i) {
    twelve.push_back("2001:db8::" + std::to_string(i));
  }
  when_joined(twelve);
  then_anything();
  const auto *group = list_first<mld_group>(&br0->groups);
  EXPECT_EQ(group->source_count, MLD_MAX_SOURCES);
  EXPECT_EQ(group->sources[9].address, address("2001:db8::10"));
  EXPECT_EQ(group->active_seconds, 0);
  EXPECT_EQ(group->report_count, 1);
  EXPECT_EQ(length(br0->hosts), 10); // a source without a slot has no host record
}

TEST_F(mld_listed_sources_join, refused_source_still_refreshes_the_group_and_later_known_ones) {
  lines ten;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    ten.push_back("2001:db8::" + std::to_string(i));
  }
  mld_group *group = given_group(br0, "ff0e::1", ten);
  group->group_timer = 7;
  group->sources[9].source_timer = 9;
  when_joined({"2001:db8::99", "2001:db8::10"});
  then(source_recorded_and_joined("2001:db8::10"));
  EXPECT_EQ(group->group_timer, 350);
  EXPECT_EQ(group->sources[9].source_timer, 360);
}

TEST_F(mld_listed_sources_join, empty_pool_loses_the_record_at_its_first_source) {
  given_pool_left(&MldRouter.free_groups, 0);
  when_joined({"2001:db8::1", "2001:db8::2"});
  then({logged_error(add_src, "No more free group available. Dropping membership request.")});
  then_groups(br0, {});
  then_hosts(br0, {});
  EXPECT_EQ(br0->join_count, 1u);
}

TEST_F(mld_listed_sources_join, empty_host_pool_does_not_keep_a_source_from_being_joined) {
  given_hosts_left(1);
  when_joined({"2001:db8::1", "2001:db8::2"});
  then(together({source_recorded_and_joined("2001:db8::1"),
                 host_looked_up("fe80::a", "2001:db8::2"),
                 {logged_error("mld_router_host_add", "MLD Error:No more free host")},
                 source_joined("ff0e::1", "2001:db8::2")}));
}

TEST_F(mld_listed_sources_join, refused_join_leaves_the_source_wanted) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->sources[0].forward = 0;
  given_failure("setsockopt(wan0, MCAST_BLOCK_SOURCE)", EINVAL);
  given_failure("setsockopt(wan0, MCAST_JOIN_SOURCE_GROUP)", EADDRNOTAVAIL);
  when_joined({"2001:db8::1"});
  then(together({host_recorded("ff0e::1", "fe80::a", "2001:db8::1"),
                 {
                     logged_debug(add_source, "MldBlock = 0"),
                     source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
                     logged_error(add_source, "setsockopt: MCAST_BLOCK_SOURCE fail!!!"),
                     source_request("MCAST_JOIN_SOURCE_GROUP", "ff0e::1", "2001:db8::1"),
                     logged_error(add_source, "setsockopt MCAST_JOIN_SOURCE_GROUP fail!!!"),
                 }}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1")});
}

TEST_F(mld_listed_sources_join, source_of_two_interfaces_is_forwarded_to_both) {
  given_group(lan1, "ff0e::1", {"2001:db8::1"});
  when_joined({"2001:db8::1"});
  then(together({host_recorded("ff0e::1", "fe80::a", "2001:db8::1"),
                 source_joined("ff0e::1", "2001:db8::1", 0, {"lan1", "br0"})}));
}

} // namespace

#include "mld/mld_filter.h"

#include "fixture.h"
#include "mld/mld_group.h"

#include <cerrno>

namespace {

using namespace scripted;

struct mld_exclude_record : mld_report_fixture {
  void when_excluded(const std::string &group, const lines &sources, const std::string &sender = "fe80::a") {
    owned_record given = record(4, group, sources);
    when([&] { mld_router_v2_exclude_group(br0, given.view(), address(sender)); });
  }

  // A group that was reported some time ago, with one source.
  mld_group *given_old_group(std::uint32_t forward, std::uint32_t state = MLD_GROUP_MEMBERS_PRESENT) {
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
    group->group_timer = 7;
    group->state = state;
    group->sources[0].forward = forward;
    group->sources[0].source_timer = 9;
    return group;
  }
};

constexpr char exclude[] = "mld_router_v2_exclude_group";

// The source is left upstream; the group's entries lead to br0 alone.
lines source_left(const std::string &group, const std::string &source) {
  return {
      source_request("MCAST_LEAVE_SOURCE_GROUP", group, source),
      logged_debug(exclude, "setsockopt: MCAST_LEAVE_SOURCE_GROUP"),
      entry_request("MRT6_ADD_MFC", source, group, "3"),
      logged_debug(exclude, "setsockopt: MRT6_ADD_MFC"),
      entry_request("MRT6_ADD_MFC", "::", group, "3"),
      logged_debug(exclude, "setsockopt: MRT6_ADD_MFC"),
  };
}

std::string source_added(const std::string &group, const std::string &source, int count_before) {
  return logged_debug(exclude, "add teh group mcast " + log_text(group) + ", origin " + log_text(source) +
                                   ", num src " + std::to_string(count_before));
}

TEST_F(mld_exclude_record, new_group_is_joined_by_source_and_the_source_left_again) {
  when_excluded("ff0e::1", {"2001:db8::1"});
  then(together({host_recorded("ff0e::1", "fe80::a", "2001:db8::1"), source_joined("ff0e::1", "2001:db8::1", 1),
                 source_left("ff0e::1", "2001:db8::1")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1", 360, 0)});
  EXPECT_EQ(br0->join_count, 1u);
  EXPECT_EQ(MldBlock, 1u);
}

TEST_F(mld_exclude_record, every_source_of_a_new_group_is_left) {
  when_excluded("ff0e::1", {"2001:db8::1", "2001:db8::2"});
  then(together({host_recorded("ff0e::1", "fe80::a", "2001:db8::1"), source_joined("ff0e::1", "2001:db8::1", 1),
                 host_recorded("ff0e::1", "fe80::a", "2001:db8::2"), source_joined("ff0e::1", "2001:db8::2", 1),
                 source_left("ff0e::1", "2001:db8::1"), source_left("ff0e::1", "2001:db8::2")}));
}

TEST_F(mld_exclude_record, wanted_source_of_a_known_group_stays_wanted) {
  given_old_group(1);
  when_excluded("ff0e::1", {"2001:db8::1"});
  then({
      entry_request("MRT6_ADD_MFC", "2001:db8::1", "ff0e::1", "3"),
      logged_debug(exclude, "setsockopt: MRT6_ADD_MFC"),
  });
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1")});
  EXPECT_EQ(br0->join_count, 0u);
  EXPECT_EQ(MldBlock, 1u);
}

TEST_F(mld_exclude_record, unwanted_source_of_a_known_group_is_refreshed_without_any_request) {
  for (const std::uint32_t state : {MLD_GROUP_MEMBERS_PRESENT, MLD_GROUP_CHECKING_MEMBERSHIP}) {
    mld_group *group = given_old_group(0, state);
    when_excluded("ff0e::1", {"2001:db8::1"});
    then({});
    then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1", 360, 0)});
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_exclude_record, group_being_checked_has_members_again_and_keeps_its_queries) {
  mld_group *group = given_old_group(1);
  given_checking(group, 2, 5);
  when_excluded("ff0e::1", {"2001:db8::1"});
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .retransmit = 5, .queries = 2}), slot_line("2001:db8::1")});
}

TEST_F(mld_exclude_record, record_from_the_unspecified_address_leaves_a_wanted_source) {
  for (const std::uint32_t forward : {1u, 0u}) {
    mld_group *group = given_old_group(forward);
    when_excluded("ff0e::1", {"2001:db8::1"}, "::");
    then(source_left("ff0e::1", "2001:db8::1"));
    then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1", 360, 0)});
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_exclude_record, new_source_of_a_known_group_is_recorded_as_unwanted_and_left) {
  given_old_group(1, MLD_GROUP_CHECKING_MEMBERSHIP);
  when_excluded("ff0e::1", {"2001:db8::2"});
  then(together({{source_added("ff0e::1", "2001:db8::2", 1)}, source_left("ff0e::1", "2001:db8::2")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1", 9), slot_line("2001:db8::2", 360, 0)});
  then_hosts(br0, {});
}

TEST_F(mld_exclude_record, source_named_twice_is_left_once) {
  given_old_group(1);
  when_excluded("ff0e::1", {"2001:db8::2", "2001:db8::2"});
  then(together({{source_added("ff0e::1", "2001:db8::2", 1)}, source_left("ff0e::1", "2001:db8::2")}));
}

TEST_F(mld_exclude_record, sources_that_the_record_does_not_name_are_not_touched) {
  mld_group *group = given_group(br0, "ff0e::1", {"::", "2001:db8::1", "2001:db8::2"});
  group->sources[0].source_timer = 0;
  group->sources[2].forward = 0;
  group->sources[2].source_timer = 3;
  when_excluded("ff0e::1", {"2001:db8::1"});
  then_anything();
  then_groups(br0,
              {group_line("ff0e::1"), slot_line("::", 0), slot_line("2001:db8::1"), slot_line("2001:db8::2", 3, 0)});
}

TEST_F(mld_exclude_record, entries_lead_to_the_reporting_interface_alone) {
  given_group(lan1, "ff0e::1", {"2001:db8::1"});
  given_old_group(1);
  when_excluded("ff0e::1", {"2001:db8::2"});
  then_requests({
      source_request("MCAST_LEAVE_SOURCE_GROUP", "ff0e::1", "2001:db8::2"),
      entry_request("MRT6_ADD_MFC", "2001:db8::2", "ff0e::1", "3"),
      entry_request("MRT6_ADD_MFC", "::", "ff0e::1", "3"),
  });
}

TEST_F(mld_exclude_record, interface_without_a_usable_mif_gets_no_output) {
  for (const std::uint32_t vif_index : {0xffffffffu, 32u, 255u, 256u}) {
    br0->vif_index = vif_index;
    mld_group *group = given_old_group(1);
    when_excluded("ff0e::1", {"2001:db8::1"});
    then_requests({entry_request("MRT6_ADD_MFC", "2001:db8::1", "ff0e::1", "")});
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_exclude_record, refused_leave_leaves_both_lines_and_the_entries_follow) {
  given_old_group(1);
  given_failure("setsockopt(wan0, MCAST_LEAVE_SOURCE_GROUP)", EADDRNOTAVAIL);
  when_excluded("ff0e::1", {"2001:db8::2"});
  then({
      source_added("ff0e::1", "2001:db8::2", 1),
      source_request("MCAST_LEAVE_SOURCE_GROUP", "ff0e::1", "2001:db8::2"),
      logged_error(exclude, "setsockopt: MCAST_LEAVE_SOURCE_GROUP fail!!!"),
      logged_debug(exclude, "setsockopt: MCAST_LEAVE_SOURCE_GROUP"),
      entry_request("MRT6_ADD_MFC", "2001:db8::2", "ff0e::1", "3"),
      logged_debug(exclude, "setsockopt: MRT6_ADD_MFC"),
      entry_request("MRT6_ADD_MFC", "::", "ff0e::1", "3"),
      logged_debug(exclude, "setsockopt: MRT6_ADD_MFC"),
  });
}

TEST_F(mld_exclude_record, refused_entry_ends_the_source_and_the_next_one_follows) {
  given_old_group(1);
  given_failure("setsockopt(mld, MRT6_ADD_MFC)", ENOMEM);
  when_excluded("ff0e::1", {"2001:db8::2", "2001:db8::3"});
  then(together({{
                     source_added("ff0e::1", "2001:db8::2", 1),
                     source_request("MCAST_LEAVE_SOURCE_GROUP", "ff0e::1", "2001:db8::2"),
                     logged_debug(exclude, "setsockopt: MCAST_LEAVE_SOURCE_GROUP"),
                     entry_request("MRT6_ADD_MFC", "2001:db8::2", "ff0e::1", "3"),
                     logged_error(exclude, "setsockopt: MRT6_ADD_MFC fail!!!"),
                     source_added("ff0e::1", "2001:db8::3", 2),
                 },
                 source_left("ff0e::1", "2001:db8::3")}));
}

TEST_F(mld_exclude_record, refused_entry_for_the_other_sources_is_logged) {
  given_old_group(1);
  Kernel.failures.push_back({"setsockopt(mld, MRT6_ADD_MFC)", ENOMEM, 1, 1});
  when_excluded("ff0e::1", {"2001:db8::2"});
  then({
      source_added("ff0e::1", "2001:db8::2", 1),
      source_request("MCAST_LEAVE_SOURCE_GROUP", "ff0e::1", "2001:db8::2"),
      logged_debug(exclude, "setsockopt: MCAST_LEAVE_SOURCE_GROUP"),
      entry_request("MRT6_ADD_MFC", "2001:db8::2", "ff0e::1", "3"),
      logged_debug(exclude, "setsockopt: MRT6_ADD_MFC"),
      entry_request("MRT6_ADD_MFC", "::", "ff0e::1", "3"),
      logged_error(exclude, "setsockopt: MRT6_ADD_MFC fail!!!"),
  });
}

TEST_F(mld_exclude_record, group_that_could_not_be_made_is_given_up) {
  given_pool_left(&MldRouter.free_groups, 0);
  when_excluded("ff0e::1", {"2001:db8::1"});
  then({
      logged_error("mld_router_v2_add_src_group", "No more free group available. Dropping membership request."),
      logged_debug(exclude, "null group " + log_text("ff0e::1")),
  });
  EXPECT_EQ(MldBlock, 1u);
  then_groups(br0, {});
}

TEST_F(mld_exclude_record, source_is_passed_over_when_all_slots_are_taken) {
  lines ten;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    ten.push_back("2001:db8::" + std::to_string(i));
  }
  mld_group *group = given_group(br0, "ff0e::1", ten);
  group->active_seconds = 1234;
  group->group_timer = 7;
  when_excluded("ff0e::1", {"2001:db8::99"});
  then({});
  EXPECT_EQ(group->source_count, MLD_MAX_SOURCES);
  EXPECT_EQ(group->active_seconds, 1234);
  EXPECT_EQ(group->report_count, 1);
  EXPECT_EQ(group->group_timer, 7);
}

TEST_F(mld_exclude_record, known_source_behind_the_tenth_is_still_handled) {
  lines many;
  for (int i = 1; i <= 12; ++i) {
    many.push_back("2001:db8::" + std::to_string(i));
  }
  many.push_back("2001:db8::77");
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::77"});
  group->sources[0].source_timer = 3;
  when_excluded("ff0e::1", many);
  then_anything();
  EXPECT_EQ(group->source_count, MLD_MAX_SOURCES); // 77 and 1 to 9
  EXPECT_EQ(group->sources[0].source_timer, 360);
}

// Each exclude record starts over; in between, sources of any other group are recorded as unwanted, too.
TEST_F(mld_exclude_record, later_sources_are_unwanted_until_the_next_exclude_record) {
  EXPECT_EQ(MldBlock, 0u);
  when_excluded("ff0e::1", {"2001:db8::1"});
  when_received(mldv2_report({{3, "ff0e::2", {"2001:db8::1"}}}), "fe80::a", 3);
  then_anything();
  then_groups(br0, {group_line("ff0e::2"), slot_line("2001:db8::1", 360, 0), group_line("ff0e::1"),
                    slot_line("2001:db8::1", 360, 0)});
}

} // namespace

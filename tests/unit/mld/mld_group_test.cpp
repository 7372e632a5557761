#include "mld/mld_group.h"

#include "fixture.h"

namespace {

using namespace scripted;

struct mld_group_records : mld_report_fixture {
  mld_group *when_taken(const std::string &group) {
    mld_group *taken = nullptr;
    when([&] {
      taken = mld_take_group(MLD_HERE, address(group));
      if (taken != nullptr) {
        mld_link_group(br0, taken);
      }
    });
    return taken;
  }
};

TEST_F(mld_group_records, taken_group_has_members_and_no_sources) {
  const mld_group *taken = when_taken("ff0e::1");
  then({});
  then_groups(br0, {group_line("ff0e::1")});
  EXPECT_EQ(taken->report_count, 1);
  EXPECT_EQ(taken->active_seconds, 0);
  EXPECT_EQ(taken->owner, &MldRouter.upstream_name);
  EXPECT_EQ(taken->source_count, 0);
}

TEST_F(mld_group_records, empty_pool_is_logged_for_the_caller) {
  given_pool_left(&MldRouter.free_groups, 0);
  mld_group *taken = nullptr;
  when([&] { taken = mld_take_group(MLD_STEP_OF("mld_router_v2_add_src_group"), address("ff0e::1")); });
  then({logged_error("mld_router_v2_add_src_group", "No more free group available. Dropping membership request.")});
  EXPECT_EQ(taken, nullptr);
}

TEST_F(mld_group_records, group_is_found_by_its_whole_address_on_its_own_interface) {
  mld_group *other = given_group(lan1, "ff0e::1");
  mld_group *older = given_group(br0, "ff0e::1");
  mld_group *newer = given_group(br0, "ff0e::2");
  EXPECT_EQ(mld_find_group(br0, address("ff0e::1")), older);
  EXPECT_EQ(mld_find_group(br0, address("ff0e::2")), newer);
  EXPECT_EQ(mld_find_group(lan1, address("ff0e::1")), other);
  EXPECT_EQ(mld_find_group(lan1, address("ff0e::2")), nullptr);
  EXPECT_EQ(mld_find_group(br0, address("ff0e::3")), nullptr);
  EXPECT_EQ(mld_find_group(br0, address("ff0d::1")), nullptr);
  EXPECT_EQ(mld_find_group(wan0, address("ff0e::1")), nullptr);
}

TEST_F(mld_group_records, released_group_gives_its_queries_back_in_any_state) {
  for (const mld_group_state state : {MLD_GROUP_MEMBERS_PRESENT, MLD_GROUP_CHECKING_MEMBERSHIP}) {
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
    given_checking(group, 3, 1);
    group->state = state;
    mld_unlink_group(br0, group);
    when([&] { mld_release_group(group); });
    EXPECT_EQ(group->state, MLD_GROUP_NO_MEMBERS);
    EXPECT_EQ(group->source_count, 0);
    EXPECT_EQ(list_first<mld_group>(&MldRouter.free_groups), group);
    EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
  }
}

TEST_F(mld_group_records, queries_are_cancelled_only_while_the_group_is_checked) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_checking(group, 2, 1);
  group->state = MLD_GROUP_MEMBERS_PRESENT;
  when([&] { mld_cancel_queries(group); });
  EXPECT_EQ(length(group->queries), 2);
  group->state = MLD_GROUP_CHECKING_MEMBERSHIP;
  when([&] { mld_cancel_queries(group); });
  EXPECT_EQ(length(group->queries), 0);
  EXPECT_EQ(group->state, MLD_GROUP_CHECKING_MEMBERSHIP);
}

TEST_F(mld_group_records, one_query_fewer_than_the_last_member_count_is_queued) {
  mld_group *group = given_group(br0, "ff0e::1");
  bool is_complete = false;
  when([&] { is_complete = mld_queue_queries(group); });
  EXPECT_TRUE(is_complete);
  ASSERT_EQ(length(group->queries), 1);
  const auto *query = list_first<mld_query>(&group->queries);
  EXPECT_EQ(query->type, 130u);
  EXPECT_EQ(query->max_resp, 10u);
  EXPECT_EQ(query->group, address("ff0e::1"));
}

TEST_F(mld_group_records, queries_queued_before_the_pool_was_empty_stay) {
  mld_group *group = given_group(br0, "ff0e::1");
  MldRouter.last_member_query_count = 4;
  given_pool_left(&MldRouter.free_queries, 2);
  bool is_complete = true;
  when([&] { is_complete = mld_queue_queries(group); });
  EXPECT_FALSE(is_complete);
  EXPECT_EQ(length(group->queries), 2);
}

TEST_F(mld_group_records, eleventh_source_is_refused_and_overwrites_nothing) {
  mld_group *group = given_group(br0, "ff0e::1");
  group->active_seconds = 1234;
  group->report_count = 5678;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    const mld_source *slot = mld_append_source(group, address("2001:db8::" + std::to_string(i)), 1);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(slot, &group->sources[static_cast<std::size_t>(i - 1)]);
    EXPECT_EQ(slot->source_timer, 360);
  }
  EXPECT_EQ(mld_append_source(group, address("2001:db8::11"), 1), nullptr);
  EXPECT_EQ(group->source_count, MLD_MAX_SOURCES);
  EXPECT_EQ(group->active_seconds, 1234);
  EXPECT_EQ(group->report_count, 5678);
}

TEST_F(mld_group_records, only_used_slots_are_searched) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->source_count = 1;
  EXPECT_EQ(mld_find_source(group, address("2001:db8::1")), &group->sources[0]);
  EXPECT_EQ(mld_find_source(group, address("2001:db8::2")), nullptr);
  EXPECT_EQ(mld_find_source(group, address("::")), nullptr); // unused slots are zero, too
}

TEST_F(mld_group_records, impossible_source_counts_are_kept_within_the_slots) {
  mld_group *group = given_group(br0, "ff0e::1");
  for (const auto &[claimed, used] : {std::pair{-1, 0u}, {0, 0u}, {7, 7u}, {10, 10u}, {11, 10u}, {1 << 30, 10u}}) {
    group->source_count = claimed;
    EXPECT_EQ(mld_sources(group).size(), used) << claimed;
  }
  group->source_count = 0;
}

TEST_F(mld_group_records, group_is_found_by_all_sixteen_bytes) {
  mld_group *second = given_group(br0, "ff0e::2");
  mld_group *first = given_group(br0, "ff0e::1");
  given_group(lan1, "ff0e::4");
  EXPECT_EQ(mld_find_group(br0, address("ff0e::1")), first);
  EXPECT_EQ(mld_find_group(br0, address("ff0e::2")), second);
  for (const char *unknown : {"ff0e::3", "ff0e::4", "ff0f::1", "ff0e:0:0:0:1::1", "::"}) {
    EXPECT_EQ(mld_find_group(br0, address(unknown)), nullptr) << unknown;
  }
}

TEST_F(mld_group_records, any_source_slot_lasts_from_eleven_seconds_on) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "::"});
  for (const auto &[seconds, lasts] : {std::pair{360, true}, {11, true}, {10, false}, {0, false}, {-1, false}}) {
    group->sources[1].source_timer = seconds;
    EXPECT_EQ(mld_has_lasting_any_source(group), lasts) << seconds;
  }
  EXPECT_FALSE(mld_has_lasting_any_source(given_group(br0, "ff0e::2", {"2001:db8::1"})));
  EXPECT_FALSE(mld_has_lasting_any_source(given_group(br0, "ff0e::3")));
}

TEST_F(mld_group_records, checking_sets_state_and_timers_and_leaves_the_slots_alone) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->retransmit_word = 9;
  mld_start_checking(group, 1);
  EXPECT_EQ(group->state, MLD_GROUP_CHECKING_MEMBERSHIP);
  EXPECT_EQ(group->group_timer, 2);
  EXPECT_EQ(group->retransmit_word, 0u);
  EXPECT_EQ(group->retransmit_timer, 1);
  EXPECT_EQ(group->sources[0].source_timer, 360);
}

TEST_F(mld_group_records, group_that_is_not_on_the_list_stays_and_is_named_in_the_log) {
  mld_group *group = given_group(br0, "ff0e::1");
  bool is_off = true;
  when([&] { is_off = mld_take_off(MLD_STEP_OF("mld_ender"), lan1, group); });
  then({logged_error("mld_ender", "Group Removal of " + log_text("ff0e::1") + " unsuccesful.")});
  EXPECT_FALSE(is_off);
  run([&] { is_off = mld_take_off(MLD_STEP_OF("mld_ender"), br0, group); });
  mld_release_group(group);
  then({});
  EXPECT_TRUE(is_off);
}

} // namespace

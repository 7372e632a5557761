// Source timers that run out while reports come and go: what the tick hands to the block and leave operations.
#include "core/memory.h"
#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_timers.h"

namespace {

using namespace scripted;

struct mld_source_expiry : mld_report_fixture {};

constexpr char tick[] = "mld_router_timer_expired";
constexpr char block[] = "mld_router_v2_block_old_sources";
constexpr char leave[] = "mld_router_v2_leave_group";

std::string source_expired(const std::string &source) {
  return logged_debug(tick, "source expired group: " + log_text("ff0e::1") + ", source: " + log_text(source));
}

lines asked_for(const std::string &source) {
  return together({host_looked_up("::", source),
                   {
                       logged_debug(block, "Block the source: " + log_text(source)),
                       logged_debug(block, "Add 1 queries to queue."),
                   }});
}

std::string checking_started() {
  return logged_debug(block, "group: " + log_text("ff0e::1") + ", set retransmit_timer = 1");
}

TEST_F(mld_source_expiry, wanted_source_that_ran_out_is_asked_for) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->sources[0].source_timer = 1;
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  given_host(br0, "ff0e::1", "fe80::b", "2001:db8::1");
  when_ticked_quietly();
  then(together({{source_expired("2001:db8::1")}, asked_for("2001:db8::1"), {checking_started()}}));
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 1}),
                    slot_line("2001:db8::1", 0), slot_line("2001:db8::2", 359)});
  then_hosts(br0, {"ff0e::1 fe80::b 2001:db8::1"}); // the first host that reported it is forgotten
  EXPECT_EQ(mld_tmp_origin, address("2001:db8::1"));
  EXPECT_EQ(br0->timeout_count, 1u);
  EXPECT_EQ(br0->leave_count, 0u);
}

TEST_F(mld_source_expiry, unwanted_source_that_ran_out_is_removed) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->sources[1].forward = 0;
  group->sources[1].source_timer = 1;
  when_ticked_quietly();
  then({
      source_expired("2001:db8::2"),
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::2"),
      logged_debug(leave, "setsockopt: MCAST_BLOCK_SOURCE"),
      logged_debug(leave, "Remove source: " + log_text("2001:db8::2") + " from group: " + log_text("ff0e::1")),
      logged_debug(leave, "Set group timer to 2"),
  });
  then_groups(br0,
              {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::1", 0)});
  EXPECT_EQ(mld_tmp_origin, address("2001:db8::2"));
  EXPECT_EQ(br0->leave_count, 0u);
}

TEST_F(mld_source_expiry, any_source_slot_that_ran_out_is_removed) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "::"});
  group->sources[1].source_timer = 1;
  when_ticked_quietly();
  then({
      source_expired("::"),
      logged_debug(leave, "Exist null source."),
      logged_debug(leave, "Remove source: " + log_text("::") + " from group: " + log_text("ff0e::1")),
      logged_debug(leave, "Set group timer to 2"),
  });
  then_groups(br0,
              {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::1", 0)});
  EXPECT_EQ(mld_tmp_origin, In6AddrAny);
}

TEST_F(mld_source_expiry, group_ends_with_its_last_source_and_the_walk_goes_on_behind_it) {
  mld_group *older = given_group(br0, "ff0e::2", {"2001:db8::5"});
  mld_group *ended = given_group(br0, "ff0e::1", {"2001:db8::1"});
  ended->sources[0] = {0, 1, address("2001:db8::1")};
  when_ticked_quietly();
  then(together({{source_expired("2001:db8::1"), logged_debug(leave, "Last one source: " + log_text("2001:db8::1") +
                                                                         " in group: " + log_text("ff0e::1"))},
                 left_upstream("ff0e::1", {"2001:db8::1"})}));
  then_groups(br0, {group_line({.group = "ff0e::2", .timer = 349}), slot_line("2001:db8::5", 359)});
  EXPECT_EQ(older->active_seconds, 1);
  EXPECT_EQ(file_contents("/tmp/tarnwick_leave_record"), std::nullopt);
}

TEST_F(mld_source_expiry, only_wanted_source_is_asked_for_and_not_ended_at_once) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->sources[0].source_timer = 1;
  when_ticked_quietly();
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 1}),
                    slot_line("2001:db8::1", 0)});
}

// A removal clears the timers of all slots and moves the later ones down: the next slot looked at is the one after
// the next, and it runs out at once.
TEST_F(mld_source_expiry, slots_behind_a_removed_one_run_out_in_the_same_pass) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2", "2001:db8::3"});
  group->sources[0] = {0, 1, address("2001:db8::1")};
  when_ticked_quietly();
  then(together(
      {{
           source_expired("2001:db8::1"),
           source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
           logged_debug(leave, "setsockopt: MCAST_BLOCK_SOURCE"),
           logged_debug(leave, "Remove source: " + log_text("2001:db8::1") + " from group: " + log_text("ff0e::1")),
           logged_debug(leave, "Set group timer to 2"),
           source_expired("2001:db8::3"),
       },
       asked_for("2001:db8::3"),
       {checking_started()}}));
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 2}),
                    slot_line("2001:db8::2", 0), slot_line("2001:db8::3", -1)});
  EXPECT_EQ(group->active_seconds, 2);
  EXPECT_EQ(br0->timeout_count, 2u);
}

TEST_F(mld_source_expiry, all_slots_may_run_out_in_one_pass) {
  lines ten;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    ten.push_back("2001:db8::" + std::to_string(i));
  }
  for (const std::uint32_t forward : {0u, 1u}) {
    mld_group *group = given_group(br0, "ff0e::1", ten);
    for (mld_source &slot : mld_sources(group)) {
      slot.source_timer = 1;
      slot.forward = forward;
    }
    when_ticked_quietly();
    then_anything();
    // When slots are removed one by one, every second one is skipped; when they are asked for, all stay.
    EXPECT_EQ(group->source_count, forward == 0 ? 5 : 10);
    EXPECT_EQ(length(group->queries), forward == 0 ? 5 : 10);
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_source_expiry, source_fires_in_every_pass_while_there_is_no_query_to_ask_with) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->sources[0].source_timer = 1;
  given_pool_left(&MldRouter.free_queries, 0);
  for (int pass = 1; pass <= 3; ++pass) {
    when_ticked_quietly();
    then(together({{source_expired("2001:db8::1")},
                   asked_for("2001:db8::1"),
                   {logged_error(block, " No more free queries available.")}}));
    then_groups(br0, {group_line({.group = "ff0e::1", .timer = 350 - pass}), slot_line("2001:db8::1", 1 - pass),
                      slot_line("2001:db8::2", 360 - pass)});
  }
  EXPECT_EQ(br0->timeout_count, 3u);
}

TEST_F(mld_source_expiry, unwanted_sources_go_even_without_queries_and_the_last_one_takes_the_group) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->sources[0] = {0, 1, address("2001:db8::1")};
  group->sources[1] = {0, 2, address("2001:db8::2")};
  given_pool_left(&MldRouter.free_queries, 0);
  when_ticked_quietly();
  then_in_order({logged_error(leave, "No more free queries available.")});
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 349}),
                    slot_line("2001:db8::2", 2, 0)}); // passed over in this pass
  when_ticked_quietly(2);
  then_in_order(
      {logged_debug(leave, "Last one source: " + log_text("2001:db8::2") + " in group: " + log_text("ff0e::1"))});
  then_groups(br0, {});
}

TEST_F(mld_source_expiry, active_seconds_count_every_slot_once_per_pass) {
  mld_group *two = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  mld_group *none = given_group(br0, "ff0e::2"); // of an MLDv1 host
  when_ticked_quietly(5);
  EXPECT_EQ(two->active_seconds, 10);
  EXPECT_EQ(none->active_seconds, 0);
  given_checking(two, 1, 10);
  when_ticked_quietly(3);
  EXPECT_EQ(two->active_seconds, 10);
  then({});
}

TEST_F(mld_source_expiry, group_in_an_impossible_state_ends_the_pass) {
  given_group(lan1, "ff0e::5")->state = 3;
  mld_group *untouched = given_group(br0, "ff0e::1");
  lan1->query_timer = 100;
  const int allocated = malloc_counter;
  const int freed = free_counter;
  run([] { mld_router_timer_expired(); });
  then({logged_error(tick, "Invalid group state 3 for group:" + log_text("ff0e::5") + " interface:lan1.")});
  EXPECT_EQ(untouched->group_timer, 350);
  EXPECT_EQ(malloc_counter - allocated, 1);
  EXPECT_EQ(free_counter - freed, 1);
}

} // namespace

// A record cannot be taken off its list: the step ends there and says so, and nothing is lost.
#include "fixture.h"
#include "mld/mld_host.h"
#include "mld/mld_join.h"
#include "mld/mld_leave.h"
#include "tests/support/failing_unlink.h"

namespace {

using namespace scripted;

struct mld_unlink_failure : mld_report_fixture {
  ~mld_unlink_failure() override { EXPECT_EQ(UnlinksToFail, 0) << "no unlink was tried"; }
};

TEST_F(mld_unlink_failure, host_record_stays_and_the_line_has_its_odd_ending) {
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  UnlinksToFail = 1;
  int result = 99;
  when([&] { result = mld_router_host_del(br0, address("ff0e::1"), address("fe80::a"), address("2001:db8::1")); });
  then(together({host_looked_up("fe80::a", "2001:db8::1"),
                 {logged_debug("mld_router_host_del", "list_remove_node fail: host = fe80::a"), "|  "}}));
  EXPECT_EQ(result, -1);
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::1"});
}

TEST_F(mld_unlink_failure, idle_group_is_neither_dropped_nor_created_afresh) {
  given_group(br0, "ff0e::1", {"::"});
  UnlinksToFail = 1;
  owned_record given = record(4, "ff0e::1");
  when([&] { mld_router_v2_add_src_group(br0, given.view(), mld_joined_sources::all, address("fe80::a")); });
  constexpr char add_src[] = "mld_router_v2_add_src_group";
  then(together({{logged_debug(add_src, "group retransmit_timer < 0, drop this group: " + log_text("ff0e::1"))},
                 host_looked_up("fe80::a", "::"),
                 {logged_error(add_src, "Group Removal of " + log_text("ff0e::1") + " unsuccesful.")}}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
}

TEST_F(mld_unlink_failure, group_whose_last_source_ran_out_stays_joined) {
  given_group(br0, "ff0e::1", {"::"});
  UnlinksToFail = 1;
  owned_record given = record(6, "ff0e::1", {"::"});
  int result = 99;
  when([&] { result = mld_router_v2_leave_group(br0, given.view(), MLD_SOURCE_EXPIRED); });
  then({logged_debug("mld_router_v2_leave_group",
                     "Last one source: " + log_text("::") + " in group: " + log_text("ff0e::1"))});
  EXPECT_EQ(result, -1);
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
}

TEST_F(mld_unlink_failure, silent_group_is_tried_again_in_the_next_pass) {
  given_group(br0, "ff0e::2");
  given_group(br0, "ff0e::1")->group_timer = 0;
  UnlinksToFail = 1;
  when_ticked_quietly();
  then_in_order(
      {logged_error("mld_router_group_timer_expired", "Group Removal of " + log_text("ff0e::1") + " unsuccesful.")});
  then_groups(
      br0, {group_line({.group = "ff0e::1", .timer = 0}), group_line("ff0e::2")}); // the second one was not looked at
  when_ticked_quietly();
  then_in_order(left_upstream("ff0e::1"));
  then_groups(br0, {group_line({.group = "ff0e::2", .timer = 349})});
}

TEST_F(mld_unlink_failure, group_that_nobody_wants_is_tried_again_in_the_next_pass) {
  given_group(br0, "ff0e::2");
  given_checking(given_group(br0, "ff0e::1"), 0, 0);
  UnlinksToFail = 1;
  when_ticked_quietly();
  then_in_order({logged_error("mld_router_retransmit_timer_expired",
                              "Group Removal of " + log_text("ff0e::1") + " unsuccesful.")});
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2}), group_line("ff0e::2")});
  when_ticked_quietly();
  then_in_order(left_upstream("ff0e::1"));
  then_groups(br0, {group_line({.group = "ff0e::2", .timer = 349})});
}

} // namespace

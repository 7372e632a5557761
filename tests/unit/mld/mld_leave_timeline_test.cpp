// From a report to the end of its group, tick by tick.
#include "fixture.h"
#include "mld/mld_group.h"

#include <cerrno>
#include <optional>

namespace {

using namespace scripted;

struct mld_leave_timeline : mld_report_fixture {
  void when_reported(int type, const lines &sources = {}, const std::string &host = "fe80::a") {
    when_received(mldv2_report({{type, "ff0e::1", sources}}), host, 3);
    then_anything();
  }

  // Ticks, then says what is left; queries sent are counted by their frames.
  void when_passed(int ticks) {
    when_ticked_quietly(ticks);
    then_anything();
  }

  void then_leave_is_told(bool is_told) {
    EXPECT_EQ(Kernel.commands, is_told ? lines{"killall -USR2 igmp_snooping"} : lines{});
    EXPECT_EQ(file_contents("/tmp/tarnwick_leave_record"),
              is_told ? std::optional<std::string>("grp=ff0e::1\n") : std::nullopt);
  }
};

constexpr char retransmit[] = "mld_router_retransmit_timer_expired";
constexpr int to_in = 3;
constexpr int to_ex = 4;
constexpr int allow = 5;
constexpr int block = 6;

TEST_F(mld_leave_timeline, leave_that_nobody_contradicts_ends_in_the_twelfth_pass) {
  when_reported(to_ex);
  when_reported(to_in);
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("::", 0)});
  when_passed(1);
  EXPECT_EQ(Kernel.frames.size(), 1u);
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 10}), slot_line("::", -1)});
  when_passed(10);
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2}), slot_line("::", -11)});
  when_ticked_quietly();
  then(together(
      {{
           "| ",
           "| ",
           logged_debug("mld_router_timer_expired",
                        "[GROUP STATE] MLD_ROUTER_CHECKING_MEMBERSHIP, retransmit_timer = 0"),
           logged_debug(retransmit, "remove group mcast " + log_text("ff0e::1")),
       },
       left_upstream("ff0e::1", {"::"}),
       {logged_debug(retransmit, "Network:br0 Group:" + log_text("ff0e::1") + " State = No members present.")}}));
  then_groups(br0, {});
  EXPECT_EQ(Kernel.frames.size(), 1u);
  then_leave_is_told(false); // only a group that times out leaves a record
}

TEST_F(mld_leave_timeline, answer_to_the_query_keeps_the_group) {
  when_reported(to_ex);
  when_reported(to_in);
  when_passed(3);
  when_reported(2, {}, "fe80::b");
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .retransmit = 8}), slot_line("::")});
  when_passed(9);
  then_groups(br0, {group_line("ff0e::1"), slot_line("::", 351)});
  then_leave_is_told(false);
}

TEST_F(mld_leave_timeline, group_of_an_mldv1_host_that_is_left_sends_no_query) {
  when_received(mldv1_message(131, "ff0e::1"), "fe80::a", 3);
  then_anything();
  when_reported(to_in);
  when_passed(11);
  EXPECT_EQ(Kernel.frames.size(), 0u);
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2})});
  when_ticked_quietly();
  then_in_order(left_upstream("ff0e::1"));
  then_groups(br0, {});
}

TEST_F(mld_leave_timeline, silent_group_ends_in_pass_351_and_the_snooping_program_is_signalled) {
  when_received(mldv1_message(131, "ff0e::1"), "fe80::a", 3);
  when_passed(349);
  EXPECT_EQ(br0->timeout_count, 0u);
  when_passed(1);
  EXPECT_EQ(br0->timeout_count, 1u);
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 0})});
  then_leave_is_told(false);
  when_ticked_quietly();
  then_in_order(left_upstream("ff0e::1"));
  then_groups(br0, {});
  then_leave_is_told(true);
  EXPECT_EQ(br0->timeout_count, 1u);
}

// The slot's timer is not touched by a block, so a source that was reported lately is not asked for, stays, and the
// short group timer then ends the whole group.
TEST_F(mld_leave_timeline, block_of_a_source_reported_lately_ends_the_group_in_pass_16) {
  when_reported(to_in, {"2001:db8::1"});
  when_reported(block, {"2001:db8::1"});
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 1}),
                    slot_line("2001:db8::1")});
  when_passed(1);
  then_groups(br0,
              {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::1", 359)});
  when_ticked_quietly();
  then_in_order({logged_debug("mld_router_v2_send_query_more_src", "No source address need to query")});
  then_groups(
      br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 10}), slot_line("2001:db8::1", 358)});
  when_passed(10);
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2}), slot_line("2001:db8::1", 348)});
  when_ticked_quietly();
  then({
      "| ",
      "| ",
      logged_debug("mld_router_timer_expired", "[GROUP STATE] MLD_ROUTER_CHECKING_MEMBERSHIP, retransmit_timer = 0"),
      logged_debug(retransmit, "unblock origin " + log_text("2001:db8::1")),
  });
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 2}), slot_line("2001:db8::1", 347)});
  when_passed(2);
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 0}), slot_line("2001:db8::1", 345)});
  when_ticked_quietly();
  then_in_order(left_upstream("ff0e::1", {"2001:db8::1"}));
  then_groups(br0, {});
  EXPECT_EQ(Kernel.frames.size(), 0u);
  then_leave_is_told(true);
}

TEST_F(mld_leave_timeline, allowed_again_in_time_the_source_keeps_its_group) {
  when_reported(to_in, {"2001:db8::1"});
  when_reported(block, {"2001:db8::1"});
  when_passed(5);
  when_reported(allow, {"2001:db8::1", "2001:db8::2"});
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2}), slot_line("2001:db8::1"), slot_line("2001:db8::2")});
  when_passed(1);
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1", 359), slot_line("2001:db8::2", 359)});
}

TEST_F(mld_leave_timeline, source_that_ran_out_is_blocked_and_the_others_stay) {
  when_reported(to_in, {"2001:db8::1", "2001:db8::2", "2001:db8::3"});
  mld_group *group = list_first<mld_group>(&br0->groups);
  group->sources[1].source_timer = 1;
  when_passed(3); // asked for in pass 1, the query goes out in pass 3
  EXPECT_EQ(Kernel.frames.size(), 1u);
  when_passed(10);
  when_ticked_quietly();
  then({
      "| ",
      "| ",
      logged_debug("mld_router_timer_expired", "[GROUP STATE] MLD_ROUTER_CHECKING_MEMBERSHIP, retransmit_timer = 0"),
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::2"),
      logged_debug(retransmit, "setsockopt: MCAST_BLOCK_SOURCE"),
      entry_request("MRT6_DEL_MFC", "2001:db8::2", "ff0e::1", ""),
      logged_debug(retransmit, "setsockopt: MRT6_DEL_MFC"),
      logged_debug(retransmit, "unblock origin " + log_text("2001:db8::1")),
      logged_debug(retransmit, "unblock origin " + log_text("2001:db8::3")),
  });
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 2}), slot_line("2001:db8::1", 346),
                    slot_line("2001:db8::3", 346)});
}

TEST_F(mld_leave_timeline, unwanted_source_that_ran_out_loses_the_any_source_entry_too) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2", "2001:db8::3"});
  given_checking(group, 0, 0);
  group->group_timer = 2;
  group->sources[0] = {0, 1, address("2001:db8::1")};
  group->sources[1] = {1, 1, address("2001:db8::2")};
  group->sources[2] = {0, 9, address("2001:db8::3")};
  when_ticked_quietly();
  then_requests({
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
      entry_request("MRT6_DEL_MFC", "2001:db8::1", "ff0e::1", ""),
      entry_request("MRT6_DEL_MFC", "::", "ff0e::1", ""),
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::2"),
      entry_request("MRT6_DEL_MFC", "2001:db8::2", "ff0e::1", ""),
  });
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 2}), slot_line("2001:db8::3", 8, 0)});
}

TEST_F(mld_leave_timeline, lasting_any_source_listener_keeps_sources_from_being_blocked) {
  for (const auto &[seconds, is_suppressed] : {std::pair{11, true}, {10, false}}) {
    SCOPED_TRACE(seconds);
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "::"});
    given_checking(group, 0, 0);
    group->sources[0] = {0, 1, address("2001:db8::1")};
    group->sources[1].source_timer = seconds + 1; // counted down before it is looked at
    when_ticked_quietly();
    then_requests(is_suppressed ? lines{entry_request("MRT6_DEL_MFC", "2001:db8::1", "ff0e::1", "")}
                                : lines{
                                      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
                                      entry_request("MRT6_DEL_MFC", "2001:db8::1", "ff0e::1", ""),
                                      entry_request("MRT6_DEL_MFC", "::", "ff0e::1", ""),
                                  });
    then_groups(br0, {group_line("ff0e::1"), slot_line("::", seconds)});
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_leave_timeline, refused_block_and_deletion_are_logged_and_the_source_goes) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  given_checking(group, 0, 0);
  group->sources[0] = {0, 1, address("2001:db8::1")};
  given_failure("setsockopt(wan0, MCAST_BLOCK_SOURCE)", EINVAL);
  given_failure("setsockopt(mld, MRT6_DEL_MFC)", ENOENT, 2);
  when_ticked_quietly();
  then_in_order({
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
      logged_error(retransmit, "setsockopt: MCAST_BLOCK_SOURCE fail!!!"),
      entry_request("MRT6_DEL_MFC", "2001:db8::1", "ff0e::1", ""),
      logged_error(retransmit, "setsockopt: MRT6_DEL_MFC fail!!!"),
      logged_debug(retransmit, "setsockopt: MRT6_DEL_MFC"),
      entry_request("MRT6_DEL_MFC", "::", "ff0e::1", ""),
      logged_error(retransmit, "setsockopt: MRT6_DEL_MFC fail!!!"),
      logged_debug(retransmit, "setsockopt: MRT6_DEL_MFC"),
      logged_debug(retransmit, "unblock origin " + log_text("2001:db8::2")),
  });
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::2", 359)});
}

TEST_F(mld_leave_timeline, any_source_listener_that_goes_silent_is_ended_by_the_group_timer) {
  when_reported(to_ex);
  when_passed(350);
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 0}), slot_line("::", 10)});
  when_passed(1);
  then_groups(br0, {});
  then_leave_is_told(true);
}

} // namespace

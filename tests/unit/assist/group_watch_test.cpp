#include "entry_words.h"
#include "fixture.h"

#include "assist/group_table.h"
#include "assist/group_watch.h"

#include <cerrno>

namespace {

class group_watch_of : public watch_fixture {
protected:
  void given_companion(const remedies_off &without = {}) {
    given_interfaces(1);
    start(without);
    tell(entry_message(RTM_NEWROUTE, WAN, {WAN}) + entry_message(RTM_NEWROUTE, 0, {}));
    requests();
    said();
    Kernel.refusals.clear();
  }

  static remedies_off without(const char *name) {
    remedies_off left_out{};
    EXPECT_TRUE(switch_off(name, left_out));
    return left_out;
  }

  // Its first general queries are sent, and leaves are not asked about.
  void given_companion_that_asks_after_ends_alone(const char *left_out = "ask-after-leave") {
    remedies_off quiet = without("ask-after-leave");
    switch_off(left_out, quiet);
    given_companion(quiet);
    send_due_queries();
    requests();
    Kernel.now_ms += 1000;
  }

  // An entry that tarnwick writes, and the shield that is put before it.
  void given_any_source(const std::vector<std::uint32_t> &outputs) {
    tell(any_source(outputs));
    requests();
  }

  static void pass(std::int64_t ms) {
    Kernel.now_ms += ms;
    handle_group_deadlines();
  }

  static void report(mld_record_type kind, const std::vector<std::string> &sources, unsigned index) {
    hear(report_bytes({record_bytes(kind, GROUP, sources)}), index);
  }
};

} // namespace

TEST_F(group_watch_of, any_source_entry_gets_a_shield) {
  given_companion();
  tell(any_source({BR0}));
  EXPECT_EQ(requests(), lines{PUT_SHIELD});
  tell(entry_of(RTM_NEWROUTE, 0, {}, "::"));
}

TEST_F(group_watch_of, refresh_takes_the_shield_which_is_put_again) {
  given_companion();
  given_any_source({BR0});
  tell(deleted_shield());
  EXPECT_EQ(requests(), lines{});
  tell(any_source({BR0}));
  EXPECT_EQ(requests(), lines{PUT_SHIELD});
  pass(10'000);
}

TEST_F(group_watch_of, entry_that_is_not_written_again_goes) {
  given_companion();
  given_any_source({BR0});
  tell(deleted_shield());
  pass(100);
  EXPECT_EQ(requests(), lines{});
  Kernel.refusals["MRT6_DEL_MFC_PROXY"] = {0, ENOENT};
  pass(200);
  EXPECT_EQ(requests(), (lines{DELETE_BEHIND, DELETE_BEHIND}));
  EXPECT_NE(find_watched_group(address(GROUP)), nullptr);
  tell(entry_of(RTM_DELROUTE, WAN, {BR0}, "::"));
  EXPECT_EQ(find_watched_group(address(GROUP)), nullptr);
}

TEST_F(group_watch_of, entry_that_tarnwick_writes_while_it_is_deleted_stands_again) {
  given_companion();
  given_any_source({BR0});
  tell(deleted_shield());
  Kernel.refusals["MRT6_DEL_MFC_PROXY"] = {0, ENOENT};
  pass(300);
  requests();
  tell(any_source({LAN1}));
  EXPECT_EQ(requests(), (lines{put_behind(" 5"), PUT_SHIELD}));
}

TEST_F(group_watch_of, entry_that_was_written_over_its_shield_is_parted_from_it) {
  given_companion();
  given_any_source({BR0});
  tell(any_source({BR0, LAN1}));
  EXPECT_EQ(requests(), (lines{DELETE_BEHIND, put_behind(" 4 5"), PUT_SHIELD}));
  tell(entry_of(RTM_DELROUTE, WAN, {BR0, LAN1}, "::") + any_source({BR0, LAN1}));
}

TEST_F(group_watch_of, left_out_shields_are_not_put) {
  given_companion(without("bridge-refresh"));
  tell(any_source({BR0}));
  tell(entry_of(RTM_DELROUTE, WAN, {BR0}, "::"));
  EXPECT_EQ(find_watched_group(address(GROUP)), nullptr);
}

TEST_F(group_watch_of, second_lan_that_asks_for_a_joined_source_becomes_an_output) {
  given_companion();
  tell(source({BR0}));
  report(MLD2_ALLOW_NEW_SOURCES, {"2001:db8:2::99"}, LAN1);
  EXPECT_EQ(requests(), lines{});
  report(MLD2_ALLOW_NEW_SOURCES, {SOURCE}, LAN1);
  EXPECT_EQ(requests(), lines{put_source(" 4 5")});
  tell(source({BR0, LAN1}));
  report(MLD2_ALLOW_NEW_SOURCES, {SOURCE}, LAN1);
}

TEST_F(group_watch_of, any_source_listener_becomes_an_output_of_every_entry) {
  given_companion();
  tell(source({BR0}));
  hear(v1_bytes(ICMPV6_MGM_REPORT, GROUP), LAN1);
  EXPECT_EQ(requests(), lines{put_source(" 4 5")});
}

TEST_F(group_watch_of, left_out_output_is_not_added) {
  given_companion(without("add-outputs"));
  tell(source({BR0}));
  report(MLD2_MODE_IS_INCLUDE, {SOURCE}, LAN1);
}

TEST_F(group_watch_of, listed_source_of_an_any_source_group_widens_the_membership_upstream) {
  given_companion();
  given_any_source({BR0});
  tell(source({LAN1}));
  EXPECT_EQ(requests(), lines{JOIN_UPSTREAM});
  tell(source({BR0, LAN1})); // again, and another one
  tell(entry_of(RTM_NEWROUTE, WAN, {LAN1}, "2001:db8:2::11"));
  EXPECT_EQ(requests(), lines{});
}

TEST_F(group_watch_of, any_source_listener_after_a_listed_source_widens_the_membership) {
  given_companion();
  tell(source({LAN1}));
  EXPECT_EQ(requests(), lines{});
  tell(any_source({BR0}));
  EXPECT_EQ(requests(), (lines{PUT_SHIELD, JOIN_UPSTREAM}));
}

TEST_F(group_watch_of, widened_membership_stays_when_the_listed_source_goes) {
  given_companion();
  given_any_source({BR0});
  tell(source({LAN1}));
  tell(entry_of(RTM_DELROUTE, WAN, {LAN1}, SOURCE));
  tell(deleted_shield() + any_source({BR0})); // a refresh
  EXPECT_EQ(requests(), (lines{JOIN_UPSTREAM, PUT_SHIELD}));
}

TEST_F(group_watch_of, widened_membership_ends_with_the_any_source_entry) {
  given_companion();
  given_any_source({BR0});
  tell(source({LAN1}));
  requests();
  tell(deleted_shield());
  Kernel.refusals["MRT6_DEL_MFC_PROXY"] = {0, ENOENT};
  pass(300);
  EXPECT_EQ(requests(), (lines{DELETE_BEHIND, DELETE_BEHIND, LEAVE_UPSTREAM}));
}

TEST_F(group_watch_of, widened_membership_ends_with_tarnwicks_last_any_source_interface) {
  remedies_off left_out = without("clear-left-groups");
  switch_off("remove-outputs", left_out);
  given_companion(left_out);
  given_any_source({BR0});
  tell(source({BR0}));
  EXPECT_EQ(requests(), lines{JOIN_UPSTREAM});
  report(MLD2_CHANGE_TO_INCLUDE, {}, BR0);
  pass(12'500);
  EXPECT_EQ(requests(), lines{LEAVE_UPSTREAM});
}

TEST_F(group_watch_of, widened_membership_ends_with_the_only_interface_that_needs_it) {
  given_companion();
  given_any_source({BR0});
  tell(source({LAN1}));
  requests();
  tell(link_message(RTM_DELLINK, BR0, "br0"));
  EXPECT_EQ(requests(), (lines{LEAVE_UPSTREAM, leave_of(BR0)}));
  said();
}

TEST_F(group_watch_of, widened_membership_ends_with_the_daemon) {
  given_companion();
  given_any_source({BR0});
  tell(source({LAN1}));
  requests();
  Kernel.refusals["MRT6_DEL_MFC"] = {ENOENT, ENOENT};
  tell(netconf_message(WAN, 0));
  EXPECT_EQ(requests().front(), LEAVE_UPSTREAM);
  said();
}

TEST_F(group_watch_of, widened_membership_gives_way_with_its_record) {
  given_companion();
  given_any_source({BR0});
  tell(source({BR0}));
  Kernel.now_ms += 100;
  for (int i = 0; i < 127; ++i) {
    tell(entry_of(RTM_NEWROUTE, WAN, {BR0}, SOURCE, "ff0e::1:" + std::to_string(i)));
  }
  requests();
  tell(entry_of(RTM_NEWROUTE, WAN, {BR0}, SOURCE, "ff0e::2"));
  EXPECT_EQ(requests(), (lines{DELETE_SHIELD, LEAVE_UPSTREAM}));
}

TEST_F(group_watch_of, refused_membership_is_told_once_and_asked_for_at_the_next_change) {
  given_companion();
  given_any_source({BR0});
  Kernel.refusals["IPV6_ADD_MEMBERSHIP"] = {ENOMEM, ENOMEM};
  tell(source({LAN1}));
  tell(source({BR0, LAN1}));
  EXPECT_EQ(said(), lines{"cannot join a group on the upstream interface: Cannot allocate memory"});
  tell(source({BR0, LAN1}));
  EXPECT_EQ(requests(), lines(3, JOIN_UPSTREAM));
}

TEST_F(group_watch_of, left_out_membership_is_not_made) {
  given_companion(without("widen-upstream"));
  given_any_source({BR0});
  tell(source({LAN1}));
  EXPECT_EQ(requests(), lines{});
}

TEST_F(group_watch_of, group_without_an_entry_is_of_no_concern) {
  given_companion();
  report(MLD2_MODE_IS_INCLUDE, {SOURCE}, LAN1);
  EXPECT_EQ(GroupTable.used, 0U);
}

TEST_F(group_watch_of, output_ends_after_a_leave) {
  given_companion();
  tell(source({BR0, LAN1}));
  report(MLD2_CHANGE_TO_INCLUDE, {}, LAN1);
  pass(12'400);
  EXPECT_EQ(requests(), lines{});
  pass(100);
  EXPECT_EQ(requests(), lines{put_source(" 4")});
}

TEST_F(group_watch_of, output_ends_after_a_block_and_its_repetition) {
  given_companion();
  tell(source({BR0, LAN1}));
  report(MLD2_BLOCK_OLD_SOURCES, {SOURCE}, LAN1);
  report(MLD2_BLOCK_OLD_SOURCES, {SOURCE}, LAN1);
  pass(18'400);
  EXPECT_EQ(requests(), lines{});
  pass(100);
  EXPECT_EQ(requests(), lines{put_source(" 4")});
}

TEST_F(group_watch_of, answer_of_another_host_keeps_the_output) {
  given_companion();
  tell(source({BR0, LAN1}));
  report(MLD2_BLOCK_OLD_SOURCES, {SOURCE}, LAN1);
  report(MLD2_MODE_IS_INCLUDE, {SOURCE}, LAN1);
  pass(100'000);
}

TEST_F(group_watch_of, output_ends_with_the_group_timer_when_nothing_is_heard) {
  given_companion();
  tell(source({BR0, LAN1}));
  pass(350'000);
  report(MLD2_MODE_IS_INCLUDE, {SOURCE}, BR0);
  pass(1'400);
  EXPECT_EQ(requests(), lines{});
  pass(100);
  EXPECT_EQ(requests(), lines{put_source(" 4")});
}

TEST_F(group_watch_of, blocks_without_end_do_not_put_the_end_off_for_ever) {
  given_companion();
  tell(source({BR0, LAN1}));
  for (int i = 0; i < 1000; ++i) {
    report(MLD2_BLOCK_OLD_SOURCES, {SOURCE}, LAN1);
  }
  pass(351'400);
  EXPECT_EQ(requests(), lines{});
  pass(100);
  EXPECT_EQ(requests(), (lines{put_source("")}));
}

TEST_F(group_watch_of, last_output_of_a_left_group_ends) {
  given_companion();
  tell(source({BR0}));
  report(MLD2_CHANGE_TO_INCLUDE, {}, BR0);
  pass(12'500);
  EXPECT_EQ(requests(), lines{put_source("")});
}

TEST_F(group_watch_of, left_out_removals_are_not_made) {
  remedies_off left_out = without("remove-outputs");
  switch_off("clear-left-groups", left_out);
  given_companion(left_out);
  tell(source({BR0, LAN1}));
  pass(400'000);
}

TEST_F(group_watch_of, interface_that_is_taken_out_is_asked_who_still_listens) {
  given_companion_that_asks_after_ends_alone();
  tell(source({BR0, LAN1}));
  report(MLD2_CHANGE_TO_INCLUDE, {}, LAN1);
  pass(12'500);
  EXPECT_EQ(requests(), lines{put_source(" 4")});
  wait(99);
  EXPECT_EQ(requests(), lines{});
  wait(1);
  EXPECT_EQ(requests(), lines{query_for(GROUP, LAN1)});
  wait(1000);
  EXPECT_EQ(requests(), lines{query_for(GROUP, LAN1)});
  wait(10'000);
  EXPECT_EQ(requests(), lines{});
}

TEST_F(group_watch_of, every_interface_of_a_left_group_that_keeps_its_entry_is_asked) {
  given_companion_that_asks_after_ends_alone();
  tell(source({BR0, LAN1}));
  report(MLD2_CHANGE_TO_INCLUDE, {}, BR0);
  report(MLD2_CHANGE_TO_INCLUDE, {}, LAN1);
  pass(12'500);
  EXPECT_EQ(requests(), lines{put_source("")});
  wait(100);
  EXPECT_EQ(requests(), (lines{query_for(GROUP, BR0), query_for(GROUP, LAN1)}));
}

TEST_F(group_watch_of, interface_that_had_no_output_is_not_asked) {
  given_companion_that_asks_after_ends_alone();
  tell(source({BR0}));
  report(MLD2_ALLOW_NEW_SOURCES, {"2001:db8:2::11"}, LAN1);
  report(MLD2_CHANGE_TO_INCLUDE, {}, LAN1);
  pass(12'500);
  wait(10'000);
  EXPECT_EQ(requests(), lines{});
}

TEST_F(group_watch_of, interface_whose_output_stays_is_not_asked) {
  given_companion_that_asks_after_ends_alone("remove-outputs");
  tell(source({BR0, LAN1}));
  report(MLD2_CHANGE_TO_INCLUDE, {}, LAN1);
  pass(12'500);
  wait(10'000);
  EXPECT_EQ(requests(), lines{});
}

TEST_F(group_watch_of, interface_that_is_taken_out_is_not_asked_where_that_is_left_out) {
  given_companion_that_asks_after_ends_alone("ask-after-end");
  tell(source({BR0, LAN1}));
  report(MLD2_CHANGE_TO_INCLUDE, {}, LAN1);
  pass(12'500);
  EXPECT_EQ(requests(), lines{put_source(" 4")});
  wait(10'000);
  EXPECT_EQ(requests(), lines{});
}

TEST_F(group_watch_of, output_that_tarnwick_leaves_out_stays_while_its_interface_listens) {
  given_companion();
  tell(source({BR0, LAN1}));
  tell(source({BR0}));
  EXPECT_EQ(requests(), lines{put_source(" 4 5")});
}

TEST_F(group_watch_of, output_that_tarnwick_added_before_our_request_is_added_again) {
  given_companion();
  tell(source({BR0}));
  hear(v1_bytes(ICMPV6_MGM_REPORT, GROUP), LAN1);
  EXPECT_EQ(requests(), lines{put_source(" 4 5")});
  tell(source({LAN1})); // read late
  EXPECT_EQ(requests(), lines{});
  tell(source({BR0, LAN1}));
}

TEST_F(group_watch_of, refused_request_is_reported_once) {
  given_companion();
  tell(source({BR0}));
  Kernel.refusals["MRT6_ADD_MFC"] = {ENOMEM, ENOMEM};
  report(MLD2_MODE_IS_INCLUDE, {SOURCE}, LAN1);
  report(MLD2_MODE_IS_INCLUDE, {SOURCE}, LAN1);
  EXPECT_EQ(requests(), lines(2, put_source(" 4 5")));
  EXPECT_EQ(said(), lines{"cannot change an entry of the forwarding cache: Cannot allocate memory"});
}

TEST_F(group_watch_of, daemons_end_takes_what_was_changed) {
  given_companion();
  tell(source({BR0}));
  report(MLD2_MODE_IS_INCLUDE, {SOURCE}, LAN1);
  tell(entry_of(RTM_NEWROUTE, WAN, {BR0}, SOURCE, "ff0e::2"));
  requests();
  Kernel.refusals["MRT6_DEL_MFC"] = {0, ENOENT};
  tell(netconf_message(WAN, 0));
  EXPECT_EQ(requests(), lines(2, "MRT6_DEL_MFC " + SOURCE + " ff0e::1 parent 3 to"));
  EXPECT_EQ(GroupTable.used, 0U);
  said();
}

TEST_F(group_watch_of, stop_takes_shields_and_memberships_alone_of_what_is_watched) {
  given_companion();
  given_any_source({BR0});
  tell(source({BR0}));
  stop_group_watch();
  EXPECT_EQ(requests(), (lines{JOIN_UPSTREAM, DELETE_SHIELD, LEAVE_UPSTREAM}));
}

TEST_F(group_watch_of, stop_right_after_the_end_of_a_group_takes_what_stands_behind_the_shield) {
  given_companion();
  given_any_source({BR0});
  tell(deleted_shield());
  Kernel.refusals["MRT6_DEL_MFC_PROXY"] = {0, ENOENT};
  stop_group_watch();
  EXPECT_EQ(requests(), (lines{DELETE_BEHIND, DELETE_BEHIND}));
}

TEST_F(group_watch_of, stop_takes_the_entry_that_was_cleared_of_outputs) {
  given_companion();
  tell(source({BR0}));
  pass(351'500);
  requests();
  stop_group_watch();
  EXPECT_EQ(requests(), lines{"MRT6_DEL_MFC " + SOURCE + " ff0e::1 parent 3 to"});
}

TEST_F(group_watch_of, kernels_table_is_read_when_the_upstream_is_a_mif) {
  given_interfaces(1);
  Kernel.routes = any_source({BR0}) + entry_of(RTM_NEWROUTE, 0, {}, "::") + source({BR0, LAN1});
  start(remedies_off{});
  said();
  const lines made = requests();
  EXPECT_EQ(lines(made.end() - 2, made.end()), (lines{PUT_SHIELD, JOIN_UPSTREAM}));
  tell(entry_message(RTM_NEWROUTE, WAN, {WAN}) + entry_message(RTM_NEWROUTE, 0, {}));
  pass(351'500);
  EXPECT_EQ(requests(), (lines{put_behind(""), put_source(""), LEAVE_UPSTREAM}));
}

TEST_F(group_watch_of, group_beyond_the_last_record_takes_that_of_the_one_that_ends_first) {
  given_companion();
  for (int i = 0; i < 128; ++i) {
    tell(entry_of(RTM_NEWROUTE, WAN, {BR0}, SOURCE, "ff0e::1:" + std::to_string(i)));
    Kernel.now_ms += 100;
  }
  tell(entry_of(RTM_NEWROUTE, WAN, {BR0}, SOURCE, "ff0e::2"));
  EXPECT_EQ(find_watched_group(address("ff0e::1:0")), nullptr);
  EXPECT_NE(find_watched_group(address("ff0e::1:1")), nullptr);
  EXPECT_NE(find_watched_group(address("ff0e::2")), nullptr);
}

TEST_F(group_watch_of, nothing_is_due_while_nothing_is_known) {
  given_companion();
  EXPECT_EQ(next_group_deadline_ms(), NO_DEADLINE);
}

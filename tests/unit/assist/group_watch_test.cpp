#include "fixture.h"

#include "assist/group_table.h"
#include "assist/group_watch.h"

#include <cerrno>

namespace {

constexpr unsigned WAN = 3;
constexpr unsigned BR0 = 4;
constexpr unsigned LAN1 = 5;
const std::string GROUP = "ff0e::1";
const std::string SOURCE = "2001:db8:2::10";
const std::string PUT_SHIELD = "MRT6_ADD_MFC_PROXY :: ff0e::1 parent 0 to";
const std::string DELETE_SHIELD = "MRT6_DEL_MFC_PROXY :: ff0e::1 parent 0 to";
const std::string DELETE_BEHIND = "MRT6_DEL_MFC_PROXY :: ff0e::1 parent 3 to";

std::string put_behind(const std::string &outputs) { return "MRT6_ADD_MFC_PROXY :: ff0e::1 parent 3 to" + outputs; }
std::string put_source(const std::string &outputs) {
  return "MRT6_ADD_MFC " + SOURCE + " ff0e::1 parent 3 to" + outputs;
}

byte_vector entry_of(int type, unsigned input, const std::vector<std::uint32_t> &outputs, const std::string &origin,
                     const std::string &group = GROUP) {
  return entry_message(type, input, outputs, to_in6_addr(address(origin)), to_in6_addr(address(group)));
}

byte_vector any_source(const std::vector<std::uint32_t> &outputs) { return entry_of(RTM_NEWROUTE, WAN, outputs, "::"); }
byte_vector source(const std::vector<std::uint32_t> &outputs) { return entry_of(RTM_NEWROUTE, WAN, outputs, SOURCE); }
byte_vector deleted_shield() { return entry_of(RTM_DELROUTE, 0, {}, "::"); }

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

TEST_F(group_watch_of, stop_takes_the_shields_alone) {
  given_companion();
  given_any_source({BR0});
  tell(source({BR0}));
  stop_group_watch();
  EXPECT_EQ(requests(), lines{DELETE_SHIELD});
}

TEST_F(group_watch_of, kernels_table_is_read_when_the_upstream_is_a_mif) {
  given_interfaces(1);
  Kernel.routes = any_source({BR0}) + entry_of(RTM_NEWROUTE, 0, {}, "::") + source({BR0, LAN1});
  start(remedies_off{});
  said();
  const lines made = requests();
  EXPECT_EQ(made.back(), PUT_SHIELD);
  tell(entry_message(RTM_NEWROUTE, WAN, {WAN}) + entry_message(RTM_NEWROUTE, 0, {}));
  pass(351'500);
  EXPECT_EQ(requests(), (lines{put_behind(""), put_source("")}));
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

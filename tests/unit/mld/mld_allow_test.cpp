#include "fixture.h"
#include "mld/mld_filter.h"
#include "mld/mld_group.h"

#include <algorithm>
#include <cerrno>

namespace {

using namespace scripted;

struct mld_allow_record : mld_report_fixture {
  void when_allowed(owned_record &given, const std::string &sender = "fe80::a") {
    when([&] { mld_router_v2_allow_new_sources(br0, given.view(), address(sender)); });
  }

  void when_allowed(const lines &sources, const std::string &sender = "fe80::a") {
    owned_record given = record(5, "ff0e::1", sources);
    when_allowed(given, sender);
  }
};

constexpr char allow[] = "mld_router_v2_allow_new_sources";

std::string sources_counted(int count) { return logged_debug(allow, "nsrcs = " + std::to_string(count)); }

std::string source_allowed(const std::string &source) {
  return logged_debug(allow, "allow new source: " + log_text(source));
}

TEST_F(mld_allow_record, new_source_is_appended_and_joined) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->group_timer = 7;
  group->retransmit_timer = 4;
  group->retransmit_word = 4;
  when_allowed({"2001:db8::2"});
  then(together({{sources_counted(1), source_allowed("2001:db8::2")},
                 host_recorded("ff0e::1", "fe80::a", "2001:db8::2"),
                 source_joined("ff0e::1", "2001:db8::2")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2")});
  EXPECT_EQ(group->retransmit_word, 0u);
  EXPECT_EQ(br0->join_count, 0u);
}

TEST_F(mld_allow_record, known_source_is_refreshed_and_joined_but_the_group_timer_runs_on) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  group->group_timer = 7;
  group->retransmit_timer = 4;
  group->sources[0] = {0, 3, address("2001:db8::1")};
  when_allowed({"2001:db8::1"});
  then(together({{sources_counted(1), source_allowed("2001:db8::1")},
                 host_recorded("ff0e::1", "fe80::a", "2001:db8::1"),
                 source_joined("ff0e::1", "2001:db8::1")}));
  then_groups(br0, {group_line({.group = "ff0e::1", .timer = 7, .retransmit = 4}), slot_line("2001:db8::1")});
}

TEST_F(mld_allow_record, any_source_listener_makes_the_upstream_join_superfluous) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "::"});
  group->sources[1].source_timer = 0; // whatever is left of it
  when_allowed({"2001:db8::1", "2001:db8::2"});
  then(together({{sources_counted(2), logged_debug(allow, "Exist null source."), source_allowed("2001:db8::1")},
                 host_recorded("ff0e::1", "fe80::a", "2001:db8::1"),
                 {source_allowed("2001:db8::2")},
                 host_recorded("ff0e::1", "fe80::a", "2001:db8::2")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("::", 0), slot_line("2001:db8::2")});
}

TEST_F(mld_allow_record, unknown_group_is_created_despite_the_log_line) {
  when_allowed({"2001:db8::1", "2001:db8::2"});
  then(together({{
                     sources_counted(2),
                     logged_debug(allow, "Cannot find group: " + log_text("ff0e::1") +
                                             " on interface: br0, skip new source record."),
                 },
                 host_recorded("ff0e::1", "fe80::a", "2001:db8::1"),
                 source_joined("ff0e::1", "2001:db8::1"),
                 host_recorded("ff0e::1", "fe80::a", "2001:db8::2"),
                 source_joined("ff0e::1", "2001:db8::2")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2")});
  EXPECT_EQ(br0->join_count, 1u);
}

// Ten is how many are handled for a group that is known.
TEST_F(mld_allow_record, unknown_group_gets_sources_beyond_the_tenth) {
  lines sources(10, "2001:db8::1");
  sources.insert(sources.end(), {"2001:db8::2", "2001:db8::3"});
  when_allowed(sources);
  then_anything();
  then_groups(br0,
              {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2"), slot_line("2001:db8::3")});
}

TEST_F(mld_allow_record, queries_of_a_group_being_checked_go_back_but_its_state_stays) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_checking(group, 3, 5);
  when_allowed({"2001:db8::1"});
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .retransmit = 5}), slot_line("2001:db8::1")});
}

TEST_F(mld_allow_record, at_most_ten_sources_are_handled) {
  given_group(br0, "ff0e::1");
  lines twelve;
  for (int i = 1; i <= 12; ++i) {
    twelve.push_back("2001:db8::" + std::to_string(i));
  }
  when_allowed(twelve);
  const lines happened = take_transcript();
  EXPECT_EQ(happened.front(), sources_counted(10));
  EXPECT_EQ(std::count(happened.begin(), happened.end(), source_allowed("2001:db8::10")), 1);
  EXPECT_EQ(std::count(happened.begin(), happened.end(), source_allowed("2001:db8::11")), 0);
  EXPECT_EQ(length(br0->hosts), 10);
}

TEST_F(mld_allow_record, source_without_a_slot_is_recorded_as_host_but_not_joined) {
  lines ten;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    ten.push_back("2001:db8::" + std::to_string(i));
  }
  mld_group *group = given_group(br0, "ff0e::1", ten);
  given_checking(group, 1, 5);
  group->group_timer = 7;
  group->active_seconds = 1234;
  when_allowed({"2001:db8::99"});
  then(together(
      {{sources_counted(1), source_allowed("2001:db8::99")}, host_recorded("ff0e::1", "fe80::a", "2001:db8::99")}));
  EXPECT_EQ(group->source_count, MLD_MAX_SOURCES);
  EXPECT_EQ(group->active_seconds, 1234);
  EXPECT_EQ(group->report_count, 1);
  EXPECT_EQ(group->group_timer, 7);
  EXPECT_EQ(group->retransmit_timer, 5);
  EXPECT_EQ(length(group->queries), 0);
}

TEST_F(mld_allow_record, record_from_the_unspecified_address_names_the_source_that_expired_last) {
  given_group(br0, "ff0e::1");
  mld_tmp_origin = address("2001:db8::77");
  owned_record given = record(5, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  when_allowed(given, "::");
  then(together({{sources_counted(2), source_allowed("2001:db8::77")},
                 host_recorded("ff0e::1", "::", "2001:db8::77"),
                 source_joined("ff0e::1", "2001:db8::77"),
                 {source_allowed("2001:db8::77")},
                 host_looked_up("::", "2001:db8::77"),
                 source_joined("ff0e::1", "2001:db8::77")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::77")});
  EXPECT_EQ(given.bytes, record(5, "ff0e::1", {"2001:db8::77", "2001:db8::77"}).bytes);
}

TEST_F(mld_allow_record, before_any_source_expired_that_adds_an_any_source_slot) {
  given_group(br0, "ff0e::1", {"2001:db8::1"});
  when_allowed({"2001:db8::2"}, "::");
  then_anything();
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("::")});
}

TEST_F(mld_allow_record, link_local_group_is_skipped) {
  owned_record given = record(5, "ff02::1", {"2001:db8::1"});
  when_allowed(given);
  then({sources_counted(1), logged_debug(allow, "Skip local multicast group address: " + log_text("ff02::1"))});
  then_groups(br0, {});
}

TEST_F(mld_allow_record, record_without_sources_does_nothing) {
  given_group(br0, "ff0e::1");
  when_allowed(lines{});
  then({logged_debug(allow, "No sources need to be added.")});
}

TEST_F(mld_allow_record, empty_host_pool_does_not_keep_a_source_from_being_joined) {
  given_group(br0, "ff0e::1");
  given_hosts_left(0);
  when_allowed({"2001:db8::1"});
  then(together({{sources_counted(1), source_allowed("2001:db8::1")},
                 host_looked_up("fe80::a", "2001:db8::1"),
                 {logged_error("mld_router_host_add", "MLD Error:No more free host")},
                 source_joined("ff0e::1", "2001:db8::1")}));
}

TEST_F(mld_allow_record, refused_join_leaves_the_source_recorded_without_an_entry) {
  given_group(br0, "ff0e::1");
  given_failure("setsockopt(wan0, MCAST_JOIN_SOURCE_GROUP)", EADDRNOTAVAIL);
  when_allowed({"2001:db8::1"});
  then_requests({source_request("MCAST_JOIN_SOURCE_GROUP", "ff0e::1", "2001:db8::1")});
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1")});
}

} // namespace

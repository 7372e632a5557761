#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_leave.h"

#include <cerrno>

namespace {

using namespace scripted;

struct mld_group_leave : mld_report_fixture {
  int when_left(const std::string &host = "fe80::a", const lines &sources = {}) {
    owned_record given = record(3, "ff0e::1", sources);
    const ipv6_address who = address(host);
    int result = 99;
    when([&] { result = mld_router_v2_leave_group(br0, given.view(), &who); });
    return result;
  }

  int when_expired(const std::string &source) {
    owned_record given = record(6, "ff0e::1", {source});
    int result = 99;
    when([&] { result = mld_router_v2_leave_group(br0, given.view(), MLD_SOURCE_EXPIRED); });
    return result;
  }
};

constexpr char leave[] = "mld_router_v2_leave_group";

std::string source_removed(const std::string &source) {
  return logged_debug(leave, "Remove source: " + log_text(source) + " from group: " + log_text("ff0e::1"));
}

std::string group_timer_set() { return logged_debug(leave, "Set group timer to 2"); }

TEST_F(mld_group_leave, leave_of_a_host_starts_the_queries_that_confirm_it) {
  mld_group *group = given_group(br0, "ff0e::1", {"::", "2001:db8::1"});
  group->retransmit_timer = 5;
  group->retransmit_word = 5;
  given_host(br0, "ff0e::1", "fe80::a", "::");
  given_host(br0, "ff0e::1", "fe80::b", "::");
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  EXPECT_EQ(when_left("fe80::a"), 0);
  then(together({{group_timer_set()}, host_looked_up("fe80::a", "::")}));
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("::", 0),
                    slot_line("2001:db8::1", 0)});
  then_hosts(br0, {"ff0e::1 fe80::b ::", "ff0e::1 fe80::a 2001:db8::1"});
  const auto *query = list_first<mld_query>(&group->queries);
  EXPECT_EQ(query->type, 130u);
  EXPECT_EQ(query->max_resp, 10u);
  EXPECT_EQ(query->group, address("ff0e::1"));
  EXPECT_EQ(group->retransmit_word, 0u);
  EXPECT_EQ(br0->leave_count, 1u);
}

TEST_F(mld_group_leave, other_hosts_do_not_keep_a_leave_from_being_checked) {
  given_group(br0, "ff0e::1", {"::"});
  given_host(br0, "ff0e::1", "fe80::b", "::");
  when_left("fe80::a");
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("::", 0)});
  then_hosts(br0, {"ff0e::1 fe80::b ::"});
}

TEST_F(mld_group_leave, repeated_leave_queues_one_more_query) {
  given_group(br0, "ff0e::1", {"::"});
  when_left();
  when_left();
  then_anything();
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 2}), slot_line("::", 0)});
  EXPECT_EQ(br0->leave_count, 2u);
}

TEST_F(mld_group_leave, leave_of_an_unknown_group_is_only_logged) {
  given_group(lan1, "ff0e::1");
  given_host(br0, "ff0e::1", "fe80::a", "::");
  EXPECT_EQ(when_left(), 0);
  then({logged_debug(leave, "Cannot find group: " + log_text("ff0e::1") + " on interface: br0.")});
  then_hosts(br0, {"ff0e::1 fe80::a ::"});
  EXPECT_EQ(br0->leave_count, 1u);
}

TEST_F(mld_group_leave, empty_query_pool_leaves_the_group_as_it_is) {
  given_group(br0, "ff0e::1", {"::"});
  given_host(br0, "ff0e::1", "fe80::a", "::");
  given_pool_left(&MldRouter.free_queries, 0);
  EXPECT_EQ(when_left(), 0);
  then({logged_error(leave, "No more free queries available.")});
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
  then_hosts(br0, {"ff0e::1 fe80::a ::"});
}

TEST_F(mld_group_leave, host_with_the_loopback_address_is_a_host) {
  given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_host(br0, "ff0e::1", "::1", "::");
  when_left("::1", {"2001:db8::1"}); // its one source stays: only a source that ran out is removed
  then(together({{group_timer_set()}, host_looked_up("::1", "::")}));
  then_groups(br0,
              {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::1", 0)});
  then_hosts(br0, {});
}

TEST_F(mld_group_leave, unspecified_host_takes_any_record_of_the_group) {
  given_group(br0, "ff0e::1", {"::"});
  given_host(br0, "ff0e::1", "fe80::b", "2001:db8::1");
  when_left("::");
  then_anything();
  then_hosts(br0, {});
}

TEST_F(mld_group_leave, expiry_of_the_only_source_ends_the_group) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_checking(group, 2, 0);
  group->state = MLD_GROUP_MEMBERS_PRESENT;
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  EXPECT_EQ(when_expired("2001:db8::1"), 0);
  then(together(
      {{logged_debug(leave, "Last one source: " + log_text("2001:db8::1") + " in group: " + log_text("ff0e::1"))},
       left_upstream("ff0e::1", {"2001:db8::1"})}));
  then_groups(br0, {});
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::1"});
  EXPECT_EQ(group->state, MLD_GROUP_NO_MEMBERS);
  EXPECT_EQ(group->link.next, nullptr); // at the tail of the pool
  EXPECT_EQ(length(MldRouter.free_groups), MLD_GROUP_POOL_SIZE);
  EXPECT_EQ(length(MldRouter.free_queries), MLD_QUERY_POOL_SIZE);
  EXPECT_EQ(br0->leave_count, 0u);
}

TEST_F(mld_group_leave, expiry_of_the_only_any_source_slot_ends_the_group) {
  given_group(br0, "ff0e::1", {"::"});
  when_expired("::");
  then(together({{logged_debug(leave, "Last one source: " + log_text("::") + " in group: " + log_text("ff0e::1"))},
                 left_upstream("ff0e::1", {"::"})}));
  then_groups(br0, {});
}

TEST_F(mld_group_leave, expired_source_among_others_is_blocked_and_removed_in_place) {
  const struct {
    const char *expired;
    lines left;
  } rows[] = {
      {"2001:db8::1", {"2001:db8::2", "2001:db8::3"}},
      {"2001:db8::2", {"2001:db8::1", "2001:db8::3"}},
      {"2001:db8::3", {"2001:db8::1", "2001:db8::2"}},
  };
  for (const auto &given : rows) {
    SCOPED_TRACE(given.expired);
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2", "2001:db8::3"});
    EXPECT_EQ(when_expired(given.expired), 0);
    then({
        source_request("MCAST_BLOCK_SOURCE", "ff0e::1", given.expired),
        logged_debug(leave, "setsockopt: MCAST_BLOCK_SOURCE"),
        source_removed(given.expired),
        group_timer_set(),
    });
    then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}),
                      slot_line(given.left[0], 0), slot_line(given.left[1], 0)});
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_group_leave, forward_of_a_slot_moves_with_it) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->sources[1].forward = 0;
  when_expired("2001:db8::1");
  then_anything();
  then_groups(br0,
              {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::2", 0, 0)});
}

TEST_F(mld_group_leave, last_of_ten_sources_is_removed_within_the_slots) {
  lines ten;
  for (int i = 1; i <= MLD_MAX_SOURCES; ++i) {
    ten.push_back("2001:db8::" + std::to_string(i));
  }
  mld_group *group = given_group(br0, "ff0e::1", ten);
  group->active_seconds = 1234;
  when_expired("2001:db8::10");
  when_expired("2001:db8::1");
  then_anything();
  EXPECT_EQ(group->source_count, 8);
  EXPECT_EQ(group->sources[0].address, address("2001:db8::2"));
  EXPECT_EQ(group->sources[7].address, address("2001:db8::9"));
  EXPECT_EQ(group->active_seconds, 1234);
  EXPECT_EQ(group->report_count, 1);
}

TEST_F(mld_group_leave, refused_block_is_logged_and_the_source_goes) {
  given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  given_failure("setsockopt(wan0, MCAST_BLOCK_SOURCE)", EINVAL);
  when_expired("2001:db8::1");
  then({
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
      logged_error(leave, "setsockopt: MCAST_BLOCK_SOURCE fail!!!"),
      source_removed("2001:db8::1"),
      group_timer_set(),
  });
}

TEST_F(mld_group_leave, any_source_listener_keeps_an_expired_source_from_being_blocked) {
  for (const char *expired : {"2001:db8::1", "::"}) {
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "::", "2001:db8::2"});
    when_expired(expired);
    then({logged_debug(leave, "Exist null source."), source_removed(expired), group_timer_set()});
    EXPECT_EQ(group->source_count, 2);
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_group_leave, source_that_is_not_there_any_more_only_starts_the_queries) {
  given_group(br0, "ff0e::1", {"2001:db8::1"});
  EXPECT_EQ(when_expired("2001:db8::9"), 0);
  then({group_timer_set()});
  then_groups(br0,
              {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::1", 0)});
}

TEST_F(mld_group_leave, empty_query_pool_does_not_bring_a_removed_source_back) {
  given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  given_pool_left(&MldRouter.free_queries, 0);
  EXPECT_EQ(when_expired("2001:db8::1"), 0);
  then({
      source_request("MCAST_BLOCK_SOURCE", "ff0e::1", "2001:db8::1"),
      logged_debug(leave, "setsockopt: MCAST_BLOCK_SOURCE"),
      source_removed("2001:db8::1"),
      logged_error(leave, "No more free queries available."),
  });
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::2")});
}

TEST_F(mld_group_leave, expiry_in_an_unknown_group_counts_no_leave) {
  EXPECT_EQ(when_expired("2001:db8::1"), 0);
  then({logged_debug(leave, "Cannot find group: " + log_text("ff0e::1") + " on interface: br0.")});
  EXPECT_EQ(br0->leave_count, 0u);
}

} // namespace

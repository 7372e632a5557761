#include "fixture.h"
#include "mld/mld_filter.h"

namespace {

using namespace scripted;

struct mld_block_record : mld_report_fixture {
  void when_blocked(owned_record &given, const std::string &sender = "fe80::a") {
    when([&] { mld_router_v2_block_old_sources(br0, given.view(), address(sender)); });
  }

  void when_blocked(const lines &sources, const std::string &sender = "fe80::a") {
    owned_record given = record(6, "ff0e::1", sources);
    when_blocked(given, sender);
  }
};

constexpr char block[] = "mld_router_v2_block_old_sources";

lines source_blocked(const std::string &source) {
  return {
      logged_debug(block, "Block the source: " + log_text(source)),
      logged_debug(block, "Add 1 queries to queue."),
  };
}

lines checking_started() {
  return {logged_debug(block, "group: " + log_text("ff0e::1") + ", set retransmit_timer = 1")};
}

TEST_F(mld_block_record, known_source_is_asked_for_before_anything_is_blocked) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  group->retransmit_word = 4;
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  given_host(br0, "ff0e::1", "fe80::b", "2001:db8::1");
  when_blocked({"2001:db8::1"});
  then(together({host_looked_up("fe80::a", "2001:db8::1"), source_blocked("2001:db8::1"), checking_started()}));
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 1}),
                    slot_line("2001:db8::1"), slot_line("2001:db8::2")});
  then_hosts(br0, {"ff0e::1 fe80::b 2001:db8::1"});
  EXPECT_EQ(group->retransmit_word, 0u);
  const auto *query = list_first<mld_query>(&group->queries);
  EXPECT_EQ(query->type, 130u);
  EXPECT_EQ(query->max_resp, 10u);
  EXPECT_EQ(query->group, address("ff0e::1"));
  EXPECT_EQ(br0->leave_count, 0u);
}

TEST_F(mld_block_record, unknown_source_queues_a_query_and_changes_no_state) {
  given_group(br0, "ff0e::1", {"2001:db8::1"});
  when_blocked({"2001:db8::9"});
  then(together({host_looked_up("fe80::a", "2001:db8::9"), source_blocked("2001:db8::9")}));
  then_groups(br0, {group_line({.group = "ff0e::1", .queries = 1}), slot_line("2001:db8::1")});
}

TEST_F(mld_block_record, host_records_go_before_the_first_source_is_handled) {
  given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::2");
  when_blocked({"2001:db8::1", "2001:db8::2"});
  then(
      together({host_looked_up("fe80::a", "2001:db8::1"), host_looked_up("fe80::a", "2001:db8::2"),
                source_blocked("2001:db8::1"), checking_started(), source_blocked("2001:db8::2"), checking_started()}));
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 2}),
                    slot_line("2001:db8::1"), slot_line("2001:db8::2")});
  then_hosts(br0, {});
  EXPECT_EQ(hosts_deleted, 2);
}

TEST_F(mld_block_record, any_source_listener_is_noted_once) {
  given_group(br0, "ff0e::1", {"2001:db8::1", "::"});
  when_blocked({"2001:db8::1"});
  then(together({host_looked_up("fe80::a", "2001:db8::1"),
                 {logged_debug(block, "Exist Any-Source address.")},
                 source_blocked("2001:db8::1"),
                 checking_started()}));
}

TEST_F(mld_block_record, unknown_group_is_not_created) {
  when_blocked({"2001:db8::1"});
  then({logged_debug(block,
                     "Cannot find group: " + log_text("ff0e::1") + " on interface: br0, skip new source record.")});
  then_groups(br0, {});
}

TEST_F(mld_block_record, hosts_of_an_unknown_group_stay) {
  given_group(lan1, "ff0e::1", {"2001:db8::1"});
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  when_blocked({"2001:db8::1"});
  then_anything();
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::1"});
  then_groups(lan1, {group_line("ff0e::1"), slot_line("2001:db8::1")});
}

TEST_F(mld_block_record, empty_query_pool_ends_the_record_and_earlier_changes_stay) {
  given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2", "2001:db8::3"});
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::3");
  given_pool_left(&MldRouter.free_queries, 1);
  when_blocked({"2001:db8::1", "2001:db8::2", "2001:db8::3"});
  then(together({host_looked_up("fe80::a", "2001:db8::1"),
                 host_looked_up("fe80::a", "2001:db8::2"),
                 host_looked_up("fe80::a", "2001:db8::3"),
                 source_blocked("2001:db8::1"),
                 checking_started(),
                 source_blocked("2001:db8::2"),
                 {logged_error(block, " No more free queries available.")}}));
  then_groups(br0, {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 1}),
                    slot_line("2001:db8::1"), slot_line("2001:db8::2"), slot_line("2001:db8::3")});
  then_hosts(br0, {});
}

TEST_F(mld_block_record, at_most_ten_sources_are_handled) {
  given_group(br0, "ff0e::1");
  lines twelve;
  for (int i = 1; i <= 12; ++i) {
    twelve.push_back("2001:db8::" + std::to_string(i));
  }
  when_blocked(twelve);
  const lines happened = take_transcript();
  EXPECT_EQ(happened.size(), 10u + 2 * 10u); // lookups, then two lines each
  EXPECT_EQ(happened.back(), logged_debug(block, "Add 1 queries to queue."));
  then_groups(br0, {group_line({.group = "ff0e::1", .queries = 10})});
}

TEST_F(mld_block_record, record_from_the_unspecified_address_names_the_source_that_expired_last) {
  given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::77"});
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::77");
  given_host(br0, "ff0e::1", "fe80::b", "2001:db8::1");
  mld_tmp_origin = address("2001:db8::77");
  owned_record given = record(6, "ff0e::1", {"2001:db8::1"});
  when_blocked(given, "::");
  // The host record that goes is still that of the source in the packet.
  then(together({host_looked_up("::", "2001:db8::1"), source_blocked("2001:db8::77"), checking_started()}));
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::77"});
  EXPECT_EQ(given.bytes, record(6, "ff0e::1", {"2001:db8::77"}).bytes);
}

TEST_F(mld_block_record, link_local_group_is_skipped) {
  owned_record given = record(6, "ff02::1", {"2001:db8::1"});
  when_blocked(given);
  then({logged_debug(block, "Skip local multicast group address: " + log_text("ff02::1"))});
}

TEST_F(mld_block_record, record_without_sources_does_nothing) {
  given_group(br0, "ff0e::1");
  when_blocked(lines{});
  then({logged_debug(block, "No sources need to be added.")});
}

} // namespace

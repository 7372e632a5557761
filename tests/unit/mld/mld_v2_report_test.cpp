#include "mld/mld_v2_report.h"

#include "fixture.h"
#include "mld/mld_group.h"

#include <algorithm>
#include <random>

namespace {

using namespace scripted;

struct mld_v2_report : mld_report_fixture {};

constexpr char handler[] = "mld_router_version2_report_handler";

lines many_sources(int count) {
  lines sources;
  for (int i = 1; i <= count; ++i) {
    sources.push_back("2001:db8::" + std::to_string(i));
  }
  return sources;
}

std::string group_traced(const std::string &group) {
  return logged_debug(handler, "[PACKET] group     : " + log_text(group));
}

std::string sources_traced(int count) { return logged_debug(handler, "[PACKET] nsrcs     : " + std::to_string(count)); }

std::string record_skipped(const std::string &group) {
  return logged_debug(handler, "[PACKET] group     : " + log_text(group) + ", skip local mcast!");
}

// A report's bytes with another number of records in its header.
std::vector<std::uint8_t> claiming(std::vector<std::uint8_t> report, int records) {
  report[6] = static_cast<std::uint8_t>(records >> 8);
  report[7] = static_cast<std::uint8_t>(records);
  return report;
}

TEST_F(mld_v2_report, report_without_records_is_an_error_and_changes_nothing) {
  given_group(br0, "ff0e::1");
  when_received(mldv2_report({}), "fe80::a", 3);
  then(together({received("fe80::a", 3, "[PACKET] icmp6_type: ICMPV6_MLD2_REPORT"),
                 {logged_error(handler, "Wrong group record number: 0")}}));
  then_groups(br0, {group_line("ff0e::1")});
}

TEST_F(mld_v2_report, bytes_behind_a_count_of_zero_are_not_read) {
  when_received(claiming(mldv2_report({{4, "ff0e::1"}}), 0), "fe80::a", 3);
  then_in_order({logged_error(handler, "Wrong group record number: 0")});
  then_groups(br0, {});
}

TEST_F(mld_v2_report, host_that_joins_gets_the_group_forwarded) {
  when_received(mldv2_report({{4, "ff0e::1"}}), "fe80::a", 3);
  then(together({received_report("fe80::a", 3, 1),
                 record_traced("ff0e::1", 0, "MLD2_CHANGE_TO_EXCLUDE"),
                 {
                     logged_debug("mld_router_v2_add_src_group", "add the gernel mcast " + log_text("ff0e::1")),
                     logged_debug("mld_router_v2_add_src_group", "group = " + log_text("ff0e::1")),
                 },
                 host_recorded("ff0e::1", "fe80::a", "::"),
                 all_sources_joined("ff0e::1")}));
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
}

TEST_F(mld_v2_report, leave_of_an_unknown_group_creates_nothing) {
  when_received(mldv2_report({{3, "ff0e::1"}}), "fe80::a", 3);
  then(together({received_report("fe80::a", 3, 1),
                 record_traced("ff0e::1", 0, "MLD2_CHANGE_TO_INCLUDE"),
                 {logged_debug("mld_router_v2_leave_group",
                               "Cannot find group: " + log_text("ff0e::1") + " on interface: br0.")}}));
  then_groups(br0, {});
}

// What a record does to a group of two sources, one of which it names; the trace line apart, types 1 and 3 are alike,
// and so are 2 and 4.
TEST_F(mld_v2_report, every_type_takes_its_path) {
  const struct {
    int type;
    lines sources;
    const char *name;
    lines groups; // afterwards
  } rows[] = {
      {1,
       {},
       "MLD2_MODE_IS_INCLUDE",
       {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::1", 0),
        slot_line("2001:db8::2", 0)}},
      {3,
       {},
       "MLD2_CHANGE_TO_INCLUDE",
       {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .queries = 1}), slot_line("2001:db8::1", 0),
        slot_line("2001:db8::2", 0)}},
      {1,
       {"2001:db8::1"},
       "MLD2_MODE_IS_INCLUDE",
       {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2", 9)}},
      {3,
       {"2001:db8::1"},
       "MLD2_CHANGE_TO_INCLUDE",
       {group_line("ff0e::1"), slot_line("2001:db8::1"), slot_line("2001:db8::2", 9)}},
      {2, {}, "MLD2_MODE_IS_EXCLUDE", {group_line("ff0e::1"), slot_line("::")}},
      {4, {}, "MLD2_CHANGE_TO_EXCLUDE", {group_line("ff0e::1"), slot_line("::")}},
      {2,
       {"2001:db8::3"},
       "MLD2_MODE_IS_EXCLUDE",
       {group_line("ff0e::1"), slot_line("2001:db8::1", 9), slot_line("2001:db8::2", 9),
        slot_line("2001:db8::3", 360, 0)}},
      {4,
       {"2001:db8::3"},
       "MLD2_CHANGE_TO_EXCLUDE",
       {group_line("ff0e::1"), slot_line("2001:db8::1", 9), slot_line("2001:db8::2", 9),
        slot_line("2001:db8::3", 360, 0)}},
      {5,
       {},
       "MLD2_ALLOW_NEW_SOURCES",
       {group_line({.group = "ff0e::1", .timer = 7}), slot_line("2001:db8::1", 9), slot_line("2001:db8::2", 9)}},
      {5,
       {"2001:db8::3"},
       "MLD2_ALLOW_NEW_SOURCES",
       {group_line("ff0e::1"), slot_line("2001:db8::1", 9), slot_line("2001:db8::2", 9), slot_line("2001:db8::3")}},
      {6,
       {},
       "MLD2_BLOCK_OLD_SOURCES",
       {group_line({.group = "ff0e::1", .timer = 7}), slot_line("2001:db8::1", 9), slot_line("2001:db8::2", 9)}},
      {6,
       {"2001:db8::1"},
       "MLD2_BLOCK_OLD_SOURCES",
       {group_line({.group = "ff0e::1", .state = 2, .timer = 2, .retransmit = 1, .queries = 1}),
        slot_line("2001:db8::1", 9), slot_line("2001:db8::2", 9)}},
  };
  for (const auto &given : rows) {
    SCOPED_TRACE(testing::Message() << given.name << " with " << given.sources.size() << " sources");
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1", "2001:db8::2"});
    group->group_timer = 7;
    group->sources[0].source_timer = 9;
    group->sources[1].source_timer = 9;
    MldBlock = 0;
    when_received(mldv2_report({{given.type, "ff0e::1", given.sources}}), "fe80::a", 3);
    then_in_order(together({received_report("fe80::a", 3, 1),
                            record_traced("ff0e::1", static_cast<int>(given.sources.size()), given.name)}));
    then_groups(br0, given.groups);
    while (auto *left = mld_pop_group(br0)) {
      mld_release_group(left);
    }
  }
}

TEST_F(mld_v2_report, allow_and_block_without_sources_do_nothing) {
  when_received(mldv2_report({{5, "ff0e::1"}, {6, "ff0e::1"}}), "fe80::a", 3);
  then(together({received_report("fe80::a", 3, 2),
                 record_traced("ff0e::1", 0, "MLD2_ALLOW_NEW_SOURCES"),
                 {logged_debug("mld_router_v2_allow_new_sources", "No sources need to be added.")},
                 record_traced("ff0e::1", 0, "MLD2_BLOCK_OLD_SOURCES"),
                 {logged_debug("mld_router_v2_block_old_sources", "No sources need to be added.")}}));
}

TEST_F(mld_v2_report, unknown_types_are_errors_and_the_walk_goes_on) {
  when_received(
      mldv2_report(
          {{0, "ff0e::1", many_sources(1)}, {7, "ff0e::2", many_sources(2)}, {255, "ff0e::3"}, {3, "ff0e::4"}}),
      "fe80::a", 3);
  then(together({received_report("fe80::a", 3, 4),
                 {
                     group_traced("ff0e::1"),
                     sources_traced(1),
                     logged_error(handler, "Unkonwn group record type: 0x00"),
                     group_traced("ff0e::2"),
                     sources_traced(2),
                     logged_error(handler, "Unkonwn group record type: 0x07"),
                     group_traced("ff0e::3"),
                     sources_traced(0),
                     logged_error(handler, "Unkonwn group record type: 0xff"),
                 },
                 record_traced("ff0e::4", 0, "MLD2_CHANGE_TO_INCLUDE"),
                 {logged_debug("mld_router_v2_leave_group",
                               "Cannot find group: " + log_text("ff0e::4") + " on interface: br0.")}}));
  then_groups(br0, {});
}

TEST_F(mld_v2_report, link_local_groups_are_skipped_with_their_sources) {
  when_received(mldv2_report({{4, "ff02::16", many_sources(3)},
                              {0, "ff02::fb"}, // skipped before its type is looked at
                              {3, "ff05::2"},
                              {1, "ff02::1:ff00:1", many_sources(1)},
                              {3, "ff12::1"}}),
                "fe80::a", 3);
  then(together({received_report("fe80::a", 3, 5),
                 {record_skipped("ff02::16"), record_skipped("ff02::fb")},
                 record_traced("ff05::2", 0, "MLD2_CHANGE_TO_INCLUDE"),
                 {
                     logged_debug("mld_router_v2_leave_group",
                                  "Cannot find group: " + log_text("ff05::2") + " on interface: br0."),
                     record_skipped("ff02::1:ff00:1"),
                 },
                 record_traced("ff12::1", 0, "MLD2_CHANGE_TO_INCLUDE"),
                 {logged_debug("mld_router_v2_leave_group",
                               "Cannot find group: " + log_text("ff12::1") + " on interface: br0.")}}));
}

TEST_F(mld_v2_report, record_behind_twelve_sources_is_found) {
  given_group(br0, "ff0e::1");
  when_received(mldv2_report({{5, "ff0e::1", many_sources(12)}, {3, "ff0e::2"}}), "fe80::a", 3);
  then_in_order(together({record_traced("ff0e::1", 12, "MLD2_ALLOW_NEW_SOURCES"),
                          {logged_debug("mld_router_v2_allow_new_sources", "nsrcs = 10")},
                          record_traced("ff0e::2", 0, "MLD2_CHANGE_TO_INCLUDE")}));
  EXPECT_EQ(list_first<mld_group>(&br0->groups)->source_count, 10);
}

TEST_F(mld_v2_report, auxiliary_data_is_read_as_the_next_record) {
  std::vector<std::uint8_t> bytes = mldv2_report({{3, "ff0e::1"}, {3, "ff0e::2"}});
  bytes[9] = 1;                                   // one word of it behind the first record
  bytes.insert(bytes.begin() + 28, {9, 0, 0, 0}); // the word, followed by the second record's first bytes
  when_received(bytes, "fe80::a", 3);
  then_in_order({
      logged_debug(handler, "[PACKET] grec_type : MLD2_CHANGE_TO_INCLUDE"),
      group_traced("300:0:ff0e::"),
      logged_error(handler, "Unkonwn group record type: 0x09"),
  });
}

TEST_F(mld_v2_report, records_that_did_not_arrive_read_as_zeros) {
  when_received(claiming(mldv2_report({{3, "ff0e::1"}}), 2), "fe80::a", 3);
  then_in_order({
      group_traced("ff0e::1"),
      group_traced("::"),
      sources_traced(0),
      logged_error(handler, "Unkonwn group record type: 0x00"),
  });
  then_groups(br0, {});
}

TEST_F(mld_v2_report, walk_of_65535_records_ends_with_the_buffer) {
  when_received(claiming(mldv2_report({{4, "ff0e::1"}}), 65535), "fe80::a", 3);
  const lines happened = take_transcript();
  EXPECT_EQ(std::count(happened.begin(), happened.end(), logged_debug(handler, "[PACKET] ngrec     : 65535")), 1);
  // (1600 - 8) / 20 records fit, the first of them a real one.
  EXPECT_EQ(std::count(happened.begin(), happened.end(), logged_error(handler, "Unkonwn group record type: 0x00")), 78);
  then_groups(br0, {group_line("ff0e::1"), slot_line("::")});
}

TEST_F(mld_v2_report, record_that_ends_with_the_buffer_is_handled) {
  when_received(mldv2_report({{7, "ff0e::1", many_sources(97)}, {4, "ff0e::2"}}), "fe80::a", 3); // at 1580
  then_in_order(record_traced("ff0e::2", 0, "MLD2_CHANGE_TO_EXCLUDE"));
  then_groups(br0, {group_line("ff0e::2"), slot_line("::")});
}

TEST_F(mld_v2_report, record_whose_header_does_not_fit_is_not_read) {
  // The third header starts at 1584; sixteen of its bytes are in the buffer.
  when_received(mldv2_report({{7, "ff0e::1", many_sources(48)}, {7, "ff0e::2", many_sources(48)}, {4, "ff0e::3"}}),
                "fe80::a", 3);
  const lines happened = take_transcript();
  EXPECT_EQ(happened.back(), logged_error(handler, "Unkonwn group record type: 0x07"));
  then_groups(br0, {});
}

TEST_F(mld_v2_report, sources_beyond_the_buffer_are_not_handled) {
  for (const int type : {1, 2, 3, 4, 5, 6}) {
    SCOPED_TRACE(type);
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
    MldBlock = 0;
    std::vector<std::uint8_t> bytes = mldv2_report({{type, "ff0e::1", many_sources(99)}}); // 98 lie within
    bytes[10] = 0xff;
    bytes[11] = 0xff;
    when_received(bytes, "fe80::a", 3);
    then_in_order({sources_traced(65535)});
    EXPECT_LE(group->source_count, MLD_MAX_SOURCES);
    mld_unlink_group(br0, group);
    mld_release_group(group);
    then_groups(br0, {});
  }
}

TEST_F(mld_v2_report, last_source_within_the_buffer_is_the_last_handled) {
  for (const int type : {1, 2}) {
    SCOPED_TRACE(type);
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::98", "2001:db8::99"});
    group->sources[0].source_timer = 9;
    group->sources[1].source_timer = 9;
    when_received(mldv2_report({{type, "ff0e::1", many_sources(99)}}), "fe80::a", 3);
    then_anything();
    EXPECT_EQ(group->sources[0].source_timer, 360);
    EXPECT_EQ(group->sources[1].source_timer, 9);
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

// A record cut before its first source must not turn into a leave or a join for all sources.
TEST_F(mld_v2_report, record_cut_before_its_first_source_changes_no_group) {
  for (const int type : {1, 2, 3, 4, 5, 6}) {
    SCOPED_TRACE(type);
    mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
    MldBlock = 0;
    when_received(mldv2_report({{7, "ff0e::9", many_sources(97)}, {type, "ff0e::1", many_sources(1)}}), "fe80::a", 3);
    then_in_order({group_traced("ff0e::1"), sources_traced(1)});
    then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1")});
    mld_unlink_group(br0, group);
    mld_release_group(group);
  }
}

TEST_F(mld_v2_report, address_that_is_not_a_multicast_group_is_recorded_but_not_joined_by_source) {
  when_received(mldv2_report({{3, "2001:db8::99", {"2001:db8::1"}}}), "fe80::a", 3);
  then(together({received_report("fe80::a", 3, 1),
                 record_traced("2001:db8::99", 1, "MLD2_CHANGE_TO_INCLUDE"),
                 host_recorded("2001:db8::99", "fe80::a", "2001:db8::1"),
                 {logged_error("mldv2_add_src_membership",
                               "Group address is not IPv6 multicast address: " + log_text("2001:db8::99"))}}));
}

// Reports of random bytes around a few real groups and hosts, with ticks in between: whatever arrives, no record is
// lost and no slot overrun (checked after each step), and a pool is never more than empty.
TEST_F(mld_v2_report, random_reports_lose_no_record) {
  std::mt19937 random(20240501); // NOLINT: the same reports in every run
  const auto number = [&random](unsigned int below) { return random() % below; };
  for (int round = 0; round < 1500; ++round) {
    std::vector<std::uint8_t> bytes(number(1700), 0);
    for (std::uint8_t &byte : bytes) {
      byte = static_cast<std::uint8_t>(number(4) == 0 ? random() : 0);
    }
    const owned_record real = record(static_cast<int>(1 + number(6)), "ff0e::" + std::to_string(number(200)),
                                     many_sources(static_cast<int>(number(13))));
    bytes.insert(bytes.begin(), real.bytes.begin(), real.bytes.end());
    const std::vector<std::uint8_t> header{143, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(number(9))};
    bytes.insert(bytes.begin(), header.begin(), header.end());
    if (number(10) == 0) {
      bytes.resize(number(30));
    }
    const bool is_unnamed = number(5) == 0;
    when_received(bytes, is_unnamed ? "::" : "fe80::" + std::to_string(number(9)), static_cast<int>(3 + number(2)));
    when_ticked(static_cast<int>(number(4)));
    then_anything();
  }
}

} // namespace

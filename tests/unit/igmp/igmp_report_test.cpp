// Reports and leaves: the states they lead to, and what they leave behind.
#include "igmp/igmp_report.h"

#include "fixture.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_leave.h"

#include <cerrno>

namespace {

using namespace scripted;

constexpr char v1_handler[] = "igmp_router_version1_report_handler";
constexpr char v2_handler[] = "igmp_router_version2_report_handler";
constexpr char leave_handler[] = "igmp_router_leave_handler";
constexpr char add[] = "igmp_proxy_add_membership";

enum class event { v1_report, v2_report, leave };

constexpr std::int32_t none = -1; // no group

struct igmp_reports : igmp_fixture {
  void when_heard(event what, const std::string &group, igmp_interface *intr) {
    when([&] {
      switch (what) {
      case event::v1_report:
        igmp_router_version1_report_handler(intr, word(group));
        break;
      case event::v2_report:
        igmp_router_version2_report_handler(intr, word(group));
        break;
      case event::leave:
        igmp_router_leave_handler(intr, word(group));
        break;
      }
    });
  }

  void when_heard(event what, const std::string &group = "239.1.2.3") { when_heard(what, group, br0); }

  // Handler called with a native word instead of a packet's.
  void when_word_heard(event what, std::uint32_t native) { when_heard(what, wire_text(native)); }

  igmp_group *held(const std::string &group = "239.1.2.3") { return igmp_find_group(br0, word(group)); }
};

lines join_lines(const std::string &group, const std::string &parent = "2") {
  return {
      "setsockopt(wan0, IP_ADD_MEMBERSHIP) group=" + group + " address=192.0.2.2 ifindex=2",
      logged_debug(add, "MFC Entry will be created for iface:br0."),
      logged_debug(add, "index_tmp = 1"),
      logged_debug(add, "intr->vif_index = 3"),
      logged_debug(add, "MRT_ADD_MFC: origin=0.0.0.0, mcastgrp=" + group + ", parent=" + parent),
      "setsockopt(igmp, MRT_ADD_MFC) origin=0.0.0.0 group=" + group + " parent=" + parent + " ttls={1:1}",
  };
}

std::string state_line(const char *handler, const std::string &group, const std::string &state) {
  return logged_debug(handler, "Interface: br0 Group: " + octets_text(group) + " State = " + state + ".");
}

struct transition {
  std::int32_t from;
  event what;
  std::int32_t to;
  int group_timer;
  int v1_host_timer;
  int retransmit_timer;
  int report_count;
  int queries;
  bool is_joined;
};

// Groups start with timers 100 (group), 40 (v1 hosts), 7 (retransmission), report count 5 and, in state 3, two queries.
const std::vector<transition> transitions{
    {none, event::v1_report, 2, 350, 350, 0, 1, 0, true}, {none, event::v2_report, 1, 350, 0, 0, 1, 0, true},
    {none, event::leave, none, 0, 0, 0, 0, 0, false},     {1, event::v1_report, 2, 350, 350, 7, 5, 0, false},
    {1, event::v2_report, 1, 350, 40, 7, 6, 0, false},    {1, event::leave, 3, 2, 0, 0, 5, 2, false},
    {2, event::v1_report, 2, 350, 350, 7, 5, 0, false},   {2, event::v2_report, 2, 350, 40, 7, 6, 0, false},
    {2, event::leave, 2, 100, 40, 7, 5, 0, false},        {3, event::v1_report, 2, 350, 350, 7, 5, 0, false},
    {3, event::v2_report, 1, 350, 40, 7, 6, 0, false},    {3, event::leave, 3, 2, 0, 0, 5, 4, false},
};

TEST_F(igmp_reports, every_state_follows_every_message) {
  int number = 0;
  for (const transition &row : transitions) {
    SCOPED_TRACE("row " + std::to_string(number));
    const std::string address = "239.0.0." + std::to_string(++number);
    if (row.from != none) {
      igmp_group *group = given_group(br0, address);
      if (row.from == IGMP_GROUP_CHECKING_MEMBERSHIP) {
        given_checking(group, 2, 0);
      }
      group->state = row.from;
      group->group_timer = 100;
      group->v1_host_timer = 40;
      group->retransmit_timer = 7;
      group->report_count = 5;
    }
    when_heard(row.what, address);
    lines joins;
    for (const std::string &line : take_transcript()) {
      if (is_request(line)) {
        joins.push_back(line);
      }
    }
    EXPECT_EQ(joins.size(), row.is_joined ? 2u : 0u);
    const igmp_group *group = held(address);
    if (row.to == none) {
      EXPECT_EQ(group, nullptr);
      continue;
    }
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->state, row.to);
    EXPECT_EQ(group->group_timer, row.group_timer);
    EXPECT_EQ(group->v1_host_timer, row.v1_host_timer);
    EXPECT_EQ(group->retransmit_timer, row.retransmit_timer);
    EXPECT_EQ(group->report_count, row.report_count);
    EXPECT_EQ(length(group->queries), row.queries);
  }
}

// Left over from a leave that found the pool empty: only a group that is being checked gives its queries back.
TEST_F(igmp_reports, queries_of_a_group_that_is_not_being_checked_stay_with_it) {
  igmp_group *group = given_group(br0, "239.1.2.3");
  given_checking(group, 1, 0);
  for (const event what : {event::v2_report, event::v1_report}) {
    group->state = IGMP_GROUP_MEMBERS_PRESENT;
    when_heard(what, "239.1.2.3");
    EXPECT_EQ(length(group->queries), 1);
  }
}

TEST_F(igmp_reports, first_version_2_report_creates_and_joins_the_group) {
  given_group(br0, "239.5.5.5");
  when_heard(event::v2_report);
  lines expected{logged_debug(v2_handler, "Add the group membership: 239.1.2.3")};
  for (const std::string &line : join_lines("239.1.2.3")) {
    expected.push_back(line);
  }
  expected.push_back(state_line(v2_handler, "239.1.2.3", "Members Present state"));
  then(expected);
  EXPECT_EQ(list_first<igmp_group>(&br0->groups), held()); // newest first
  EXPECT_EQ(br0->join_count, 1);
}

TEST_F(igmp_reports, first_version_1_report_creates_and_joins_the_group) {
  when_heard(event::v1_report);
  lines expected = join_lines("239.1.2.3");
  expected.push_back(state_line(v1_handler, "239.1.2.3", "Version 1 Members present state"));
  then(expected);
  EXPECT_EQ(held()->report_count, 1);
}

TEST_F(igmp_reports, refresh_makes_no_request) {
  given_group(br0, "239.1.2.3");
  when_heard(event::v2_report);
  then({
      logged_debug(v2_handler, "V2 group 239.1.2.3 timer refresh"),
      state_line(v2_handler, "239.1.2.3", "Members Present state"),
  });
  when_heard(event::v1_report);
  then({state_line(v1_handler, "239.1.2.3", "Version 1 Members present state")});
  when_heard(event::v2_report);
  then({
      logged_debug(v2_handler, "V2 group 239.1.2.3 timer refresh"),
      state_line(v2_handler, "239.1.2.3", "Version 1 Members present state"),
  });
  EXPECT_EQ(br0->join_count, 3);
}

TEST_F(igmp_reports, local_control_groups_are_filtered_as_words) {
  for (const std::uint32_t native : {0xE0000000u, IgmpAllHosts, IgmpAllRouters, IgmpV3AllMcr, 0xE00000FFu}) {
    when_word_heard(event::v1_report, native);
    when_word_heard(event::v2_report, native);
    then({});
  }
  EXPECT_EQ(length(br0->groups), 0);
  EXPECT_EQ(br0->join_count, 10); // counted before the filter
}

TEST_F(igmp_reports, packet_with_a_local_control_group_is_filtered_only_where_its_word_is_one) {
  const std::string packet_group = "224.0.0.251";
  const bool is_filtered = (word(packet_group) & 0xFFFFFF00) == 0xE0000000;
  when_heard(event::v2_report, packet_group);
  then_anything();
  EXPECT_EQ(held(packet_group) == nullptr, is_filtered);
}

TEST_F(igmp_reports, special_group_is_filtered_as_a_word) {
  when_word_heard(event::v1_report, 0xEFFFFFFA);
  then({logged_debug(v1_handler, "IGMPv1: Special addr, not to join it !.")});
  when_word_heard(event::v2_report, 0xEFFFFFFA);
  then({logged_debug(v2_handler, "IGMPv2: Special addr, not to join it !.")});
  EXPECT_EQ(length(br0->groups), 0);
  EXPECT_EQ(br0->join_count, 2);
}

TEST_F(igmp_reports, packet_with_the_special_group_is_filtered_only_where_its_word_is_the_one) {
  const std::string packet_group = "239.255.255.250";
  when_heard(event::v2_report, packet_group);
  then_anything();
  EXPECT_EQ(held(packet_group) == nullptr, word(packet_group) == 0xEFFFFFFA);
}

TEST_F(igmp_reports, report_is_lost_when_the_group_pool_is_empty) {
  given_pool_left(&IgmpRouter.free_groups, 0);
  when_heard(event::v1_report);
  then({logged_error(v1_handler, "No more free group available. Dropping membership request.")});
  when_heard(event::v2_report);
  then({logged_error(v2_handler, "No more free group available. Dropping membership request.")});
  EXPECT_EQ(length(br0->groups), 0);
  EXPECT_EQ(br0->join_count, 2);
}

TEST_F(igmp_reports, hundred_and_twenty_ninth_group_is_refused_on_any_interface) {
  for (int i = 0; i < 128; ++i) {
    when_heard(event::v2_report, "239.2.3." + std::to_string(i), i % 2 == 0 ? br0 : lan1);
  }
  then_anything();
  when_heard(event::v2_report, "239.9.9.9", lan1);
  then({logged_error(v2_handler, "No more free group available. Dropping membership request.")});
  when_heard(event::v2_report, "239.2.3.0"); // a known one is still refreshed
  then_anything();
  EXPECT_EQ(held("239.2.3.0")->report_count, 2);
}

TEST_F(igmp_reports, group_whose_join_was_refused_stays_and_is_not_joined_again_by_a_refresh) {
  given_failure("setsockopt(wan0, IP_ADD_MEMBERSHIP)", ENOBUFS, -1);
  when_heard(event::v2_report);
  then_anything();
  ASSERT_NE(held(), nullptr);
  EXPECT_EQ(held()->state, IGMP_GROUP_MEMBERS_PRESENT);
  when_heard(event::v2_report);
  then_requests({});
}

TEST_F(igmp_reports, leave_of_an_unknown_group_only_counts) {
  when_heard(event::leave, "224.0.0.2");
  then({logged_debug(leave_handler, "No group 224.0.0.2 exist to leave.")});
  EXPECT_EQ(br0->leave_count, 1);
}

TEST_F(igmp_reports, leave_is_ignored_while_version_1_hosts_are_there) {
  given_group(br0, "239.1.2.3", IGMP_GROUP_V1_MEMBERS_PRESENT);
  when_heard(event::leave);
  then({logged_debug(leave_handler,
                     "Receiving leave report with group: 239.1.2.3, interface: br0 but in V1 state. Ignoring.")});
  EXPECT_EQ(br0->leave_count, 1);
}

TEST_F(igmp_reports, leave_queues_two_last_member_queries_silently) {
  given_group(br0, "239.1.2.3");
  ImmediateLeave = 1; // plays no part here
  when_heard(event::leave);
  then({});
  ASSERT_EQ(length(held()->queries), 2);
  for (auto *query = list_first<igmp_query>(&held()->queries); query != nullptr; query = list_after(query)) {
    EXPECT_EQ(query->type, 0x11);
    EXPECT_EQ(query->max_resp, 10);
    EXPECT_EQ(query->group, word("239.1.2.3"));
  }
}

TEST_F(igmp_reports, leave_has_no_address_filter) {
  igmp_group *group = given_group(br0, wire_text(0xEFFFFFFA));
  when_word_heard(event::leave, 0xEFFFFFFA);
  then({});
  EXPECT_EQ(group->state, IGMP_GROUP_CHECKING_MEMBERSHIP);
}

TEST_F(igmp_reports, leave_that_finds_too_few_queries_keeps_state_and_what_was_queued) {
  igmp_group *group = given_group(br0, "239.1.2.3");
  group->retransmit_timer = 7;
  given_pool_left(&IgmpRouter.free_queries, 1);
  when_heard(event::leave);
  then({logged_error(leave_handler, "No more free queries available.")});
  EXPECT_EQ(group->state, IGMP_GROUP_MEMBERS_PRESENT);
  EXPECT_EQ(group->group_timer, 350);
  EXPECT_EQ(group->retransmit_timer, 7);
  EXPECT_EQ(length(group->queries), 1);
  when_heard(event::leave);
  then({logged_error(leave_handler, "No more free queries available.")});
  EXPECT_EQ(length(group->queries), 1);
}

TEST_F(igmp_reports, next_leave_adds_two_queries_to_those_left_over) {
  igmp_group *group = given_group(br0, "239.1.2.3");
  given_checking(group, 1, 0);
  group->state = IGMP_GROUP_MEMBERS_PRESENT;
  when_heard(event::leave);
  then({});
  EXPECT_EQ(length(group->queries), 3);
}

} // namespace

#include "run/log_filter.h"
#include "run/log_line.h"
#include "run/log_rate.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

constexpr char host[] = "D:mld :mld_network_socket_read_data        # 113: [PACKET] host      : fe80::1";
constexpr char group[] = "D:mld :mld_router_version2_report_handler  #  50: [PACKET] group     : ff0e::1";
constexpr char link_local[] =
    "D:mld :mld_router_version2_report_handler  #  47: [PACKET] group     : ff02::16, skip local mcast!";
constexpr char dropped[] =
    "D:mld :mld_router_v2_add_src_group         #  42: group retransmit_timer < 0, drop this group: ff0e::1";
constexpr char added[] = "D:mld :mld_router_v2_add_src_group         #  79: add the gernel mcast ff0e::1";
constexpr char entry[] = "D:mld :mld_proxy_add_membership            # 120: MFC Entry will be created for iface:br0.";
constexpr char leave[] = "D:mld :mld_router_v2_leave_group           # 196: Set group timer to 2";
constexpr char expiry[] = "D:mld :mld_router_group_timer_expired      # 202: Group timer expired.";
constexpr char request[] = "D:mld :mld_proxy_add_membership            # 118: setsockopt: IPV6_ADD_MEMBERSHIP";

using lines = std::vector<std::string>;

lines passed(const lines &log) {
  log_filter filter{};
  lines all;
  for (const std::string &line : log) {
    if (is_for_operator(filter, line, take_log_line_apart(line).message)) {
      for (held_log_line *held : {&filter.host, &filter.group}) {
        const std::string_view text = take_held_log_line(*held);
        if (!text.empty()) {
          all.emplace_back(text);
        }
      }
      all.push_back(line);
    }
  }
  return all;
}

TEST(log_filter, join_is_four_lines_who_what_and_what_came_of_it) {
  EXPECT_EQ(passed({host, group, added, request, entry, request}), (lines{host, group, added, entry}));
}

TEST(log_filter, repeated_report_says_nothing) {
  EXPECT_EQ(passed({host, group, dropped, request, added, request, entry, request}), lines{});
}

TEST(log_filter, new_group_behind_a_repeated_one_of_the_same_report_is_told) {
  EXPECT_EQ(passed({host, group, dropped, added, entry, group, added, entry}), (lines{host, group, added, entry}));
}

TEST(log_filter, packet_of_link_local_groups_says_nothing) { EXPECT_EQ(passed({host, link_local, request}), lines{}); }

TEST(log_filter, leave_names_host_and_group) { EXPECT_EQ(passed({host, group, leave}), (lines{host, group, leave})); }

TEST(log_filter, expiry_is_not_laid_at_the_last_hosts_door) {
  EXPECT_EQ(passed({host, group, expiry, entry}), (lines{expiry, entry}));
}

TEST(log_filter, text_must_match_to_its_end) {
  EXPECT_EQ(passed({"D:mld :mld_create_network_list             # 123: Set wan0 as UPSTREAM interface."}).size(), 1U);
  EXPECT_EQ(passed({"D:mld :mld_create_network_list             # 123: Set wan0 as something else"}), lines{});
  EXPECT_EQ(passed({"D:mld :mld_proxy_stop                      #  76: Stop MLD Proxy. Really"}), lines{});
}

TEST(log_filter, longer_held_line_is_cut) {
  log_filter filter{};
  const std::string line = host + std::string(500, 'x');
  EXPECT_FALSE(is_for_operator(filter, line, take_log_line_apart(line).message));
  EXPECT_EQ(take_held_log_line(filter.host), line.substr(0, LONGEST_HELD_LINE));
}

TEST(log_line, level_and_message_are_found) {
  const log_line_parts parts = take_log_line_apart(leave);
  EXPECT_EQ(parts.level, 'D');
  EXPECT_EQ(parts.message, "Set group timer to 2");
}

TEST(log_line, name_that_is_wider_than_its_column_moves_the_message) {
  const log_line_parts parts = take_log_line_apart("E:mld :a_function_with_a_name_of_forty_one_letter#1234: a: b");
  EXPECT_EQ(parts.level, 'E');
  EXPECT_EQ(parts.message, "a: b");
}

TEST(log_line, anything_else_is_no_line_of_the_daemon) {
  for (const char *line :
       {"", "E", "E:", "sh: 1: killall: not found", "X:mld :mld_proxy_stop                      # 1: a",
        "E:mld :mld_proxy_stop                      # 81", "E:mld mld_proxy_stop"}) {
    EXPECT_EQ(take_log_line_apart(line).level, '\0') << line;
    EXPECT_EQ(take_log_line_apart(line).message, line);
  }
}

TEST(log_rate, counts_anew_every_second) {
  log_rate rate{};
  for (unsigned i = 0; i < MOST_LOG_LINES_A_SECOND; ++i) {
    EXPECT_TRUE(may_pass(rate, 5000));
  }
  EXPECT_FALSE(may_pass(rate, 5999));
  EXPECT_EQ(ms_until_summary(rate, 5999), 1);
  EXPECT_EQ(take_left_out(rate, 5999), 0U);
  EXPECT_EQ(take_left_out(rate, 6000), 1U);
  EXPECT_EQ(ms_until_summary(rate, 6000), -1);
  EXPECT_TRUE(may_pass(rate, 6000));
}

} // namespace

#include "status/json_report.h"
#include "status/number_text.h"
#include "status/report.h"
#include "status/screen.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

// A moment of a router with two LAN interfaces, and the same a second earlier.
struct moment {
  daemon_state state;
  traffic_sample before{};
  traffic_sample now{};
  snapshot joined{};
  process_facts daemon{4711, 1, {"tarnwick"}, UINT64_MAX, 0, true, 0}; // not started yet: up 0 s

  ~moment() {
    free_rows(state.interfaces);
    free_rows(state.groups);
    for (traffic_sample *sample : {&before, &now}) {
      free_rows(sample->mifs);
      free_rows(sample->entries);
    }
    free_snapshot(joined);
  }
};

constexpr char any_entry[] = "ff0e:0000:0000:0000:0000:0000:0000:0101 0000:0000:0000:0000:0000:0000:0000:0000 2 ";
constexpr char source_entry[] = "ff3e:0000:0000:0000:0000:0000:8000:0001 2001:0db8:0002:0000:0000:0000:0000:0010 2 ";
constexpr char tree_entry[] = "0000:0000:0000:0000:0000:0000:0000:0000 0000:0000:0000:0000:0000:0000:0000:0000 2 ";

void given_mifs(moment &shown) {
  parse_mif_table(shown.now.mifs,
                  " 2 wan0 2000000 2000 0 0 00000\n 3 br0 0 0 1500000 1500 00000\n 4 lan1 0 0 0 0 00000\n");
}

void given_state(moment &shown, const char *type_messages, const char *join_state) {
  parse_type_messages(shown.state.interfaces, type_messages);
  parse_join_state(shown.state.groups, join_state);
}

void given_entries(traffic_sample &sample, std::int64_t milliseconds, const std::string &rows) {
  sample.milliseconds = milliseconds;
  parse_cache_table(sample.entries, rows.c_str());
}

constexpr char three_interfaces[] = "[MLD]ifname: lan1 query: 0 join: 1 leave: 0 timeout: 0\n"
                                    "[MLD]ifname: br0 query: 1 join: 12 leave: 3 timeout: 1\n"
                                    "[MLD]ifname: wan0 query: 4 join: 0 leave: 0 timeout: 0\n";

void given_two_streams(moment &shown) {
  given_mifs(shown);
  given_state(shown, three_interfaces,
              "ifname: lan1 group: ff0e::101 average: 7\n"
              "ifname: br0 group: ff3e::8000:1 average: 12\n"
              "ifname: br0 group: ff0e::101 average: 42\n");
  given_entries(shown.before, 10000,
                std::string(any_entry) + "1000 1000000 0 3:1 4:1\n" + source_entry + "1 100 0 3:1\n");
  given_entries(shown.now, 11000,
                std::string(tree_entry) + "0 0 0 2:1\n" + source_entry + "251 125100 0 3:1\n" + any_entry +
                    "2000 2000000 0 3:1 4:1\n");
}

std::vector<std::string> page_of(moment &shown, bool is_utf8 = false) {
  join_snapshot(shown.joined, shown.daemon, shown.state, shown.before, shown.now);
  page built;
  add_report(built, shown.joined, is_utf8);
  std::vector<std::string> lines;
  for (const page_line &line : all_rows(built.lines)) {
    lines.emplace_back(line_text(built, line));
  }
  free_rows(built.bytes);
  free_rows(built.lines);
  return lines;
}

TEST(status_report, groups_and_streams_are_aligned_under_their_headings) {
  moment shown;
  given_two_streams(shown);
  const std::vector<std::string> expected{
      "tarnwick 4711, up 0 s: 3 interfaces, 2 groups, 3 forwarding entries",
      "",
      "INTERFACE  ROLE        MIF  QUERIES  JOINS  LEAVES  TIMEOUTS  PKTS IN  BYTES IN  PKTS OUT  BYTES OUT  NOTE",
      "wan0       upstream      2        4      0       0         0     2000   2.00 MB         0        0 B",
      "br0        downstream    3        1     12       3         1        0       0 B      1500    1.50 MB",
      "lan1       downstream    4        0      1       0         0        0       0 B         0        0 B",
      "",
      "GROUP         LISTENERS  MEMBER FOR  SOURCE          PACKETS    BYTES         RATE  LOAD      OUTPUTS    NOTE",
      "ff0e::101     lan1              7 s  any                2000  2.00 MB  8.00 Mbit/s  ########  br0, lan1",
      "              br0              42 s",
      "ff3e::8000:1  br0              12 s  2001:db8:2::10      251   125 kB  1.00 Mbit/s  #         br0",
      "",
      "Static tree: 0 packets without a listener, 0 bit/s now",
  };
  EXPECT_EQ(page_of(shown), expected);
}

TEST(status_report, interfaces_of_a_private_network_are_shown_with_the_hosts_names) {
  moment shown;
  parse_mif_table(shown.now.mifs, " 2 up0 0 0 0 0 00000\n 3 down0 0 0 0 0 00000\n");
  shown.now.mifs.first[0].host_name = {"eth0.2"};
  shown.now.mifs.first[1].host_name = {"br-lan.100"};
  given_state(shown,
              "[MLD]ifname: down0 query: 0 join: 0 leave: 0 timeout: 0\n"
              "[MLD]ifname: up0 query: 0 join: 0 leave: 0 timeout: 0\n",
              "");
  const std::vector<std::string> lines = page_of(shown);
  EXPECT_EQ(lines[0], "tarnwick 4711, up 0 s, in a private network: 2 interfaces, 0 groups, 0 forwarding entries");
  EXPECT_TRUE(lines[3].starts_with("up0 (eth0.2)        upstream      2  ")) << lines[3];
  EXPECT_TRUE(lines[4].starts_with("down0 (br-lan.100)  downstream    3  ")) << lines[4];
  text json;
  add_json(json, shown.joined);
  EXPECT_NE(std::string(text_of(json)).find("\"name\":\"down0\""), std::string::npos) << text_of(json);
  EXPECT_NE(std::string(text_of(json)).find("\"host_name\":\"br-lan.100\""), std::string::npos) << text_of(json);
  free_rows(json);
}

TEST(status_report, missing_static_tree_is_named_as_the_reason) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "ifname: br0 group: ff0e::101 average: 1\n");
  given_entries(shown.now, 11000, std::string(any_entry) + "0 0 0 3:1\n");
  EXPECT_EQ(page_of(shown).back(), "The static tree is missing, so any-source groups do not flow on a mainline kernel: "
                                   "start tarnwick-assist.");
}

TEST(status_report, missing_static_tree_beside_a_companion_that_runs_sends_the_reader_to_its_log) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "ifname: br0 group: ff0e::101 average: 1\n");
  given_entries(shown.now, 11000, std::string(any_entry) + "0 0 0 3:1\n");
  shown.joined.companion = 4712;
  EXPECT_EQ(page_of(shown).back(), "The static tree is missing, so any-source groups do not flow on a mainline kernel: "
                                   "tarnwick-assist runs (process 4712): look at its log.");
}

TEST(status_report, group_without_entry_sends_the_reader_to_the_log) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "ifname: br0 group: ff0e::101 average: 1\n");
  const std::vector<std::string> lines = page_of(shown);
  EXPECT_NE(lines[8].find("no forwarding entry"), std::string::npos) << lines[8];
  EXPECT_EQ(lines.back(), "A group has listeners but no forwarding entry: look for \"fail!!!\" in the daemon's log.");
}

TEST(status_report, entry_whose_listener_is_gone_and_waiting_packets_are_distinguished) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "");
  given_entries(shown.now, 11000,
                std::string(any_entry) +
                    "9 9 0 3:1\n"
                    "ff0e:0000:0000:0000:0000:0000:0000:0909 2001:0db8:0002:0000:0000:0000:0000:0010 -1 0 0 0\n");
  const std::vector<std::string> lines = page_of(shown);
  EXPECT_TRUE(lines[8].ends_with("br0      no listener")) << lines[8];
  EXPECT_TRUE(lines[9].ends_with("none     no entry takes it")) << lines[9];
}

TEST(status_report, first_look_has_no_rates) {
  moment shown;
  given_two_streams(shown);
  join_snapshot(shown.joined, shown.daemon, shown.state, shown.now, shown.now);
  EXPECT_FALSE(shown.joined.has_rates);
}

TEST(status_report, entry_made_anew_counts_from_zero) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "ifname: br0 group: ff0e::101 average: 1\n");
  given_entries(shown.before, 10000, std::string(any_entry) + "900000 900000 0 3:1\n");
  given_entries(shown.now, 12000, std::string(any_entry) + "10 2000 0 3:1\n");
  page_of(shown);
  EXPECT_DOUBLE_EQ(shown.joined.streams.first[0].bits_per_second, 8000.0);
  EXPECT_DOUBLE_EQ(shown.joined.streams.first[0].packets_per_second, 5.0);
}

TEST(status_report, interface_without_mif_and_no_groups_at_all_are_shown) {
  moment shown;
  given_state(shown, "[MLD]ifname: wan0 query: 0 join: 0 leave: 0 timeout: 0\n", "");
  const std::vector<std::string> lines = page_of(shown);
  EXPECT_EQ(lines[3], "wan0       upstream    -        0      0       0         0        -         -         -"
                      "          -  not in the kernel's routing: restart");
  EXPECT_EQ(lines.back(), "No group has a listener, and the kernel forwards nothing.");
}

std::vector<std::string> page_in(moment &shown, std::size_t columns) {
  join_snapshot(shown.joined, shown.daemon, shown.state, shown.before, shown.now);
  page built;
  add_report(built, shown.joined, true, columns);
  std::vector<std::string> lines;
  for (const page_line &line : all_rows(built.lines)) {
    lines.emplace_back(line_text(built, line));
  }
  free_page(built);
  return lines;
}

TEST(status_report, tables_fit_eighty_columns_without_the_least_needed_ones) {
  moment shown;
  given_two_streams(shown);
  const std::vector<std::string> lines = page_in(shown, 80);
  EXPECT_EQ(lines[2], "INTERFACE  ROLE        MIF  QUERIES  JOINS  LEAVES  PKTS IN  PKTS OUT  NOTE");
  EXPECT_EQ(lines[7], "GROUP         LISTENERS  SOURCE          PACKETS         RATE  OUTPUTS    NOTE");
  for (const std::string &line : lines) {
    EXPECT_LE(columns_of(line.c_str()), 80U) << line;
  }
}

TEST(status_report, note_and_name_stay_in_the_narrowest_window) {
  moment shown;
  given_two_streams(shown);
  const std::vector<std::string> lines = page_in(shown, 12);
  EXPECT_NE(std::find(lines.begin(), lines.end(), "INTERFACE  NOTE"), lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "GROUP         NOTE"), lines.end());
}

TEST(status_report, hints_and_title_are_broken_at_blanks_and_lose_nothing) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "ifname: br0 group: ff0e::101 average: 1\n");
  given_entries(shown.now, 11000, std::string(any_entry) + "0 0 0 3:1\n");
  const std::vector<std::string> lines = page_in(shown, 40);
  const std::vector<std::string> title{"tarnwick 4711, up 0 s: 3 interfaces, 1", "group, 1 forwarding entry"};
  const std::vector<std::string> hint{"The static tree is missing, so", "any-source groups do not flow on a",
                                      "mainline kernel: start tarnwick-assist."};
  EXPECT_EQ(std::vector(lines.begin(), lines.begin() + 2), title);
  EXPECT_EQ(std::vector(lines.end() - 3, lines.end()), hint);
}

TEST(status_page, word_that_is_wider_than_the_window_is_cut) {
  page built;
  add_paragraph(built, line_style::plain, "ab cdefgh  i", 3);
  std::string lines;
  for (const page_line &line : all_rows(built.lines)) {
    lines += std::string(line_text(built, line)) + "|";
  }
  EXPECT_EQ(lines, "ab|cde|fgh|i|");
  free_page(built);
}

TEST(status_report, longest_addresses_leave_room_for_the_note) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "ifname: br0 group: ff3e:1111:2222:3333:4444:5555:6666:7777 average: 1\n");
  const std::string entry =
      "ff3e:1111:2222:3333:4444:5555:6666:7777 2001:0db8:2222:3333:4444:5555:6666:7777 2 5 500 0 3:1\n";
  given_entries(shown.before, 10000, entry);
  given_entries(shown.now, 11000, entry);
  const std::vector<std::string> lines = page_in(shown, 80);
  EXPECT_TRUE(lines[8].ends_with("no packets now")) << lines[8];
  EXPECT_LE(lines[8].size(), 80U);
}

TEST(status_report, packets_add_up_when_an_entry_is_made_anew_while_one_watches) {
  moment shown;
  given_mifs(shown);
  given_state(shown, three_interfaces, "ifname: br0 group: ff0e::101 average: 1\n");
  given_entries(shown.before, 10000, std::string(any_entry) + "100 1000 0 3:1\n");
  join_snapshot(shown.joined, shown.daemon, shown.state, shown.before, shown.before);
  given_entries(shown.now, 12000, std::string(any_entry) + "10 200 0 3:1\n");
  page_of(shown);
  EXPECT_EQ(shown.joined.streams.first[0].packets, 110U);
  EXPECT_EQ(shown.joined.streams.first[0].bytes, 1200U);
  page_of(shown);
  EXPECT_EQ(shown.joined.streams.first[0].packets, 110U);
  shown.daemon.start_ticks -= 1; // another daemon
  page_of(shown);
  EXPECT_EQ(shown.joined.streams.first[0].packets, 10U);
}

TEST(status_report, output_that_does_not_transmit_is_named) {
  moment shown;
  given_two_streams(shown);
  parse_device_table(shown.before.devices, "br0: 0 0 0 0 0 0 0 0 0 5000 0\n lan1: 0 0 0 0 0 0 0 0 0 100 0\n");
  parse_device_table(shown.now.devices, "br0: 0 0 0 0 0 0 0 0 0 6250 0\n lan1: 0 0 0 0 0 0 0 0 0 101 0\n");
  const std::vector<std::string> lines = page_of(shown);
  EXPECT_TRUE(lines[8].ends_with("lan1 does not transmit")) << lines[8];
  EXPECT_EQ(lines[10].find("transmit"), std::string::npos) << lines[10];
  free_rows(shown.before.devices);
  free_rows(shown.now.devices);
}

TEST(status_report, interface_made_anew_is_told_from_its_mif) {
  moment shown;
  given_two_streams(shown);
  parse_device_table(shown.now.devices, "br0: 0 0 0 0 0 0 0 0 0 0 0\nwan0: 0 0 0 0 0 0 0 0 0 0 0\n");
  parse_indexes(shown.now.devices, "fe80000000000000000000fffe0001fe 13 40 20 80 br0\n"
                                   "fe80000000000000000000fffe0002fe 02 40 20 80 wan0\n");
  const std::vector<std::string> lines = page_of(shown);
  EXPECT_FALSE(lines[3].ends_with("restart")) << lines[3];
  EXPECT_TRUE(lines[4].ends_with("made anew, other index: restart")) << lines[4];
  free_rows(shown.now.devices);
}

TEST(status_report, what_a_supervisor_sees_to_is_left_to_it) {
  moment shown;
  shown.daemon.supervisor_network = 1;
  given_state(shown, "[MLD]ifname: wan0 query: 0 join: 0 leave: 0 timeout: 0\n", "");
  EXPECT_TRUE(page_of(shown)[3].ends_with("not in the kernel's routing: tarnwick-run sees to it"));
}

// br0's row after a look in which so many queries of others had been counted there.
std::string row_of_br0(moment &shown, int queries, std::int64_t milliseconds) {
  clear_rows(shown.state.interfaces);
  const std::string counters = " join: 0 leave: 0 timeout: 0\n";
  const std::string all = "[MLD]ifname: br0 query: " + std::to_string(queries) + counters +
                          "[MLD]ifname: wan0 query: " + std::to_string(queries) + counters;
  parse_type_messages(shown.state.interfaces, all.c_str());
  shown.now.milliseconds = milliseconds;
  const std::vector<std::string> lines = page_of(shown);
  EXPECT_TRUE(lines[3].ends_with("0 B")) << lines[3]; // upstream nothing is said
  return lines[4];
}

TEST(status_report, querier_is_told_while_it_asks_and_when_it_is_lost) {
  moment shown;
  given_mifs(shown);
  EXPECT_TRUE(row_of_br0(shown, 7, 0).ends_with("1.50 MB")); // since when is not known
  EXPECT_TRUE(row_of_br0(shown, 7, 2000).ends_with("1.50 MB"));
  EXPECT_TRUE(row_of_br0(shown, 8, 4000).ends_with("another querier asks"));
  EXPECT_TRUE(row_of_br0(shown, 8, 139999).ends_with("another querier asks"));
  EXPECT_TRUE(row_of_br0(shown, 8, 140000).ends_with("other querier lost: silent for 2 min 16 s"));
  EXPECT_TRUE(row_of_br0(shown, 8, 304000).ends_with("other querier lost: silent for 5 min 0 s"));
  EXPECT_TRUE(row_of_br0(shown, 8, 305000).ends_with("1.50 MB")); // the daemon asks again
  EXPECT_TRUE(row_of_br0(shown, 9, 306000).ends_with("another querier asks"));
  shown.daemon.start_ticks -= 1; // another daemon
  EXPECT_TRUE(row_of_br0(shown, 9, 307000).ends_with("1.50 MB"));
}

TEST(status_report, interface_that_is_gone_is_told) {
  moment shown;
  given_state(shown, "[MLD]ifname: (gone) query: 0 join: 0 leave: 0 timeout: 0\n", "");
  EXPECT_TRUE(page_of(shown)[3].ends_with("interface is gone: restart"));
}

TEST(status_report, pool_of_groups_is_told_when_nearly_full_and_when_full) {
  for (const auto &[groups, words] : {std::pair{115, ""},
                                      {116, "116 of 128 group records are in use: soon"},
                                      {128, "128 of 128 group records are in use: no further"}}) {
    moment shown;
    std::string join_state;
    for (int i = 1; i <= groups; ++i) {
      join_state += "ifname: br0 group: ff0e::" + std::to_string(i) + " average: 1\n";
    }
    given_state(shown, three_interfaces, join_state.c_str());
    std::string all;
    for (const std::string &line : page_of(shown)) {
      all += line + "\n";
    }
    EXPECT_EQ(all.find("group records") != std::string::npos, words[0] != '\0') << groups;
    EXPECT_NE(all.find(words), std::string::npos) << groups;
  }
}

TEST(status_json, every_figure_is_in_one_object) {
  moment shown;
  given_two_streams(shown);
  page_of(shown);
  text built;
  add_json(built, shown.joined);
  EXPECT_STREQ(text_of(built),
               R"({"pid":4711,"running_seconds":0,"sample_seconds":1.000,"interfaces":[)"
               R"({"name":"wan0","protocol":"MLD","role":"upstream","queries":4,"joins":0,"leaves":0,"timeouts":0,)"
               R"("mif":2,"packets_in":2000,"bytes_in":2000000,"packets_out":0,"bytes_out":0},)"
               R"({"name":"br0","protocol":"MLD","role":"downstream","queries":1,"joins":12,"leaves":3,"timeouts":1,)"
               R"("mif":3,"packets_in":0,"bytes_in":0,"packets_out":1500,"bytes_out":1500000},)"
               R"({"name":"lan1","protocol":"MLD","role":"downstream","queries":0,"joins":1,"leaves":0,"timeouts":0,)"
               R"("mif":4,"packets_in":0,"bytes_in":0,"packets_out":0,"bytes_out":0}],"groups":[)"
               R"({"group":"ff0e::101","listeners":[{"interface":"lan1","average_seconds":7},)"
               R"({"interface":"br0","average_seconds":42}],"streams":[{"source":"::","kind":"wanted","packets":2000,)"
               R"("bytes":2000000,"wrong_interface":0,"bits_per_second":8000000,"packets_per_second":1000.0,)"
               R"("outputs":["br0","lan1"]}]},)"
               R"({"group":"ff3e::8000:1","listeners":[{"interface":"br0","average_seconds":12}],"streams":[)"
               R"({"source":"2001:db8:2::10","kind":"wanted","packets":251,"bytes":125100,"wrong_interface":0,)"
               R"("bits_per_second":1000000,"packets_per_second":250.0,"outputs":["br0"]}]},)"
               R"({"group":"::","listeners":[],"streams":[{"source":"::","kind":"static_tree","packets":0,"bytes":0,)"
               R"("wrong_interface":0,"bits_per_second":0,"packets_per_second":0.0,"outputs":["wan0"]}]}]})"
               "\n");
  free_rows(built);
}

TEST(status_json, odd_interface_names_are_escaped) {
  moment shown;
  given_state(shown, "[MLD]ifname: a\"b\\c\x01 query: 0 join: 0 leave: 0 timeout: 0\n", "");
  page_of(shown);
  text built;
  add_json(built, shown.joined);
  EXPECT_NE(std::string(text_of(built)).find(R"("name":"a\"b\\c\u0001")"), std::string::npos) << text_of(built);
  free_rows(built);
}

TEST(status_numbers, bytes_and_rates_keep_three_digits) {
  EXPECT_STREQ(bytes_text(0).data(), "0 B");
  EXPECT_STREQ(bytes_text(999).data(), "999 B");
  EXPECT_STREQ(bytes_text(1000).data(), "1.00 kB");
  EXPECT_STREQ(bytes_text(13600000).data(), "13.6 MB");
  EXPECT_STREQ(bytes_text(999600).data(), "1.00 MB");
  EXPECT_STREQ(rate_text(5214000).data(), "5.21 Mbit/s");
  EXPECT_STREQ(rate_text(99960).data(), "100 kbit/s");
}

TEST(status_numbers, durations_name_their_two_largest_units) {
  EXPECT_STREQ(duration_text(42).data(), "42 s");
  EXPECT_STREQ(duration_text(61).data(), "1 min 1 s");
  EXPECT_STREQ(duration_text(3 * 3600 + 12 * 60 + 5).data(), "3 h 12 min");
  EXPECT_STREQ(duration_text(5 * 86400 + 4 * 3600).data(), "5 d 4 h");
}

TEST(status_numbers, bar_grows_with_the_share_and_never_hides_a_stream) {
  EXPECT_STREQ(bar_of(0, true).data(), "");
  EXPECT_STREQ(bar_of(0.0001, true).data(), "▏");
  EXPECT_STREQ(bar_of(0.5, true).data(), "████");
  EXPECT_STREQ(bar_of(1, true).data(), "████████");
  EXPECT_STREQ(bar_of(7, true).data(), "████████");
  EXPECT_STREQ(bar_of(0.0001, false).data(), "#");
  EXPECT_STREQ(bar_of(1, false).data(), "########");
}

struct test_page : page {
  ~test_page() {
    free_rows(bytes);
    free_rows(lines);
  }
};

std::string drawn(const screen &onto, const page &shown) {
  text content;
  add_page(content, onto, shown);
  const std::string result = text_of(content);
  free_rows(content);
  return result;
}

TEST(status_screen, page_wider_and_longer_than_the_window_is_cut) {
  test_page shown;
  add_line(shown, line_style::heading, "HEADING");
  add_line(shown, line_style::plain, "▏▎▍▌▋▊");
  add_line(shown, line_style::plain, "third");
  EXPECT_EQ(drawn({true, false, true, 2, 4}, shown), "HEAD\n... ");
  EXPECT_EQ(drawn({true, false, true, 3, 4}, shown), "HEAD\n▏▎▍▌\nthir");
}

TEST(status_screen, styles_show_only_with_colour) {
  test_page shown;
  add_line(shown, line_style::heading, "HEADING");
  EXPECT_EQ(drawn({false, false, true, 0, 0}, shown), "HEADING\n");
  EXPECT_EQ(drawn({true, true, true, 0, 0}, shown), "\033[1mHEADING\033[0m\n");
}

} // namespace

#include "status/daemon_process.h"
#include "status/kernel_tables.h"
#include "status/lines.h"
#include "status/state_files.h"

#include <gtest/gtest.h>

#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <unistd.h>

namespace {

constexpr char mif_table[] = "Interface      BytesIn  PktsIn  BytesOut PktsOut Flags\n"
                             " 3 wan0          43144     770         0       0 00000\n"
                             " 2 br0               0       0     41440     740 00000\n";

constexpr char cache_heading[] =
    "Group                            Origin                           Iif      Pkts  Bytes     Wrong  Oifs\n";

rows_of<cache_row> entries_of(const std::string &rows) {
  rows_of<cache_row> entries;
  parse_cache_table(entries, (cache_heading + rows).c_str());
  return entries;
}

TEST(status_state_files, counters_of_every_interface_are_read_in_the_order_of_the_file) {
  rows_of<interface_counters> interfaces;
  parse_type_messages(interfaces, "[MLD]ifname: br0 query: 1 join: 22 leave: 3 timeout: 4\n"
                                  "[IGMP]ifname: eth0.100 query: 0 join: 0 leave: 0 timeout: -1\n");
  ASSERT_EQ(interfaces.count, 2U);
  EXPECT_STREQ(interfaces.first[0].protocol.data(), "MLD");
  EXPECT_STREQ(interfaces.first[0].name.data(), "br0");
  EXPECT_EQ(interfaces.first[0].queries, 1);
  EXPECT_EQ(interfaces.first[0].joins, 22);
  EXPECT_EQ(interfaces.first[0].leaves, 3);
  EXPECT_EQ(interfaces.first[0].timeouts, 4);
  EXPECT_STREQ(interfaces.first[1].protocol.data(), "IGMP");
  EXPECT_STREQ(interfaces.first[1].name.data(), "eth0.100");
  EXPECT_EQ(interfaces.first[1].timeouts, -1);
  free_rows(interfaces);
}

TEST(status_state_files, lines_that_make_no_sense_are_passed_over) {
  rows_of<interface_counters> interfaces;
  parse_type_messages(interfaces,
                      "\n[MLD]ifname: br0 query: 1 join: 2 leave: 3\nnonsense\n"
                      "[MLD]ifname: a-name-of-far-too-many-characters query: 1 join: 2 leave: 3 timeout: 4\n"
                      "[MLD]ifname: br1 query: 1 join: 2 leave: 3 timeout: 4");
  ASSERT_EQ(interfaces.count, 1U);
  EXPECT_STREQ(interfaces.first[0].name.data(), "br1");
  free_rows(interfaces);
}

TEST(status_state_files, groups_are_read_with_interface_and_average) {
  rows_of<group_line> groups;
  parse_join_state(groups, "ifname: br0 group: ff0e::1:2:3 average: 42\nifname: br0 group: average: 1\n");
  ASSERT_EQ(groups.count, 1U);
  EXPECT_STREQ(groups.first[0].interface.data(), "br0");
  EXPECT_STREQ(groups.first[0].group.data(), "ff0e::1:2:3");
  EXPECT_EQ(groups.first[0].average_seconds, 42);
  free_rows(groups);
}

TEST(status_kernel_tables, heading_is_not_an_interface) {
  rows_of<mif_row> mifs;
  parse_mif_table(mifs, mif_table);
  ASSERT_EQ(mifs.count, 2U);
  EXPECT_EQ(mifs.first[0].number, 3);
  EXPECT_STREQ(mifs.first[0].name.data(), "wan0");
  EXPECT_EQ(mifs.first[0].bytes_in, 43144U);
  EXPECT_EQ(mifs.first[0].packets_in, 770U);
  EXPECT_EQ(mifs.first[1].bytes_out, 41440U);
  EXPECT_EQ(mifs.first[1].packets_out, 740U);
  EXPECT_STREQ(find_mif(mifs, 2)->name.data(), "br0");
  EXPECT_EQ(find_mif(mifs, 4), nullptr);
  free_rows(mifs);
}

TEST(status_kernel_tables, entry_is_read_with_short_addresses_and_outputs) {
  rows_of<cache_row> entries =
      entries_of("ff0e:0000:0000:0000:0000:0000:0000:0101 2001:0db8:0002:0000:0000:0000:0000:0010 3"
                 "        761    42616        5  2:1   31:1  \n");
  ASSERT_EQ(entries.count, 1U);
  EXPECT_STREQ(entries.first[0].group.data(), "ff0e::101");
  EXPECT_STREQ(entries.first[0].origin.data(), "2001:db8:2::10");
  EXPECT_EQ(entries.first[0].parent, 3);
  EXPECT_EQ(entries.first[0].packets, 761U);
  EXPECT_EQ(entries.first[0].bytes, 42616U);
  EXPECT_EQ(entries.first[0].wrong_interface, 5U);
  EXPECT_EQ(entries.first[0].outputs, 1U << 2 | 1U << 31);
  free_rows(entries);
}

TEST(status_kernel_tables, shield_is_passed_over) {
  rows_of<cache_row> entries =
      entries_of("ff0e:0000:0000:0000:0000:0000:0000:0101 0000:0000:0000:0000:0000:0000:0000:0000 0"
                 "          0        0        0\n");
  EXPECT_EQ(entries.count, 0U);
  free_rows(entries);
}

TEST(status_kernel_tables, unresolved_entry_has_no_parent_and_no_outputs) {
  rows_of<cache_row> entries =
      entries_of("ff0e:0000:0000:0000:0000:0000:0000:0101 2001:0db8:0002:0000:0000:0000:0000:0010 -1"
                 "         0        0        0\n");
  ASSERT_EQ(entries.count, 1U);
  EXPECT_EQ(entries.first[0].parent, -1);
  EXPECT_EQ(entries.first[0].outputs, 0U);
  free_rows(entries);
}

TEST(status_kernel_tables, output_beyond_the_kernels_numbers_is_passed_over) {
  rows_of<cache_row> entries =
      entries_of("ff0e:0000:0000:0000:0000:0000:0000:0101 0000:0000:0000:0000:0000:0000:0000:0000 3"
                 "  1 2 3  32:1   -4:1  4:1\n");
  ASSERT_EQ(entries.count, 1U);
  EXPECT_EQ(entries.first[0].outputs, 1U << 4);
  free_rows(entries);
}

TEST(status_lines, line_longer_than_the_buffer_is_cut_and_the_next_one_found) {
  const std::string longer(2000, 'x');
  const std::string all = longer + "\nsecond";
  const char *place = all.c_str();
  line_buffer line;
  ASSERT_TRUE(next_line(line, place));
  EXPECT_EQ(std::string(line.data()), longer.substr(0, line.size() - 1));
  ASSERT_TRUE(next_line(line, place));
  EXPECT_STREQ(line.data(), "second");
  EXPECT_FALSE(next_line(line, place));
}

TEST(status_daemon_process, name_with_blanks_and_brackets_is_read_to_its_last_bracket) {
  process_facts facts{};
  ASSERT_TRUE(parse_process_stat(facts, "7 (a) (b) S 12 7 7 0 -1 4194560 1 0 0 0 3 4 0 0 20 0 1 0 98765 1 2"));
  EXPECT_STREQ(facts.name.data(), "a) (b");
  EXPECT_EQ(facts.parent, 12);
  EXPECT_EQ(facts.start_ticks, 98765U);
}

TEST(status_daemon_process, malformed_stat_is_refused) {
  process_facts facts{};
  EXPECT_FALSE(parse_process_stat(facts, ""));
  EXPECT_FALSE(parse_process_stat(facts, "7 )tarnwick("));
  EXPECT_FALSE(parse_process_stat(facts, "7 (tarnwick) S"));
  EXPECT_FALSE(parse_process_stat(facts, "7 (a-name-of-sixteen) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 9 1"));
}

// A row of /proc/PID/status: bit n - 1 stands for signal n, and the numbers differ between processors.
std::string signal_row(const char *name, std::initializer_list<int> numbers) {
  std::uint64_t mask = 0;
  for (const int number : numbers) {
    mask |= std::uint64_t{1} << (number - 1);
  }
  std::array<char, 32> digits{};
  std::snprintf(digits.data(), digits.size(), "%016" PRIx64, mask);
  return std::string(name) + ":\t" + digits.data() + "\n";
}

TEST(status_daemon_process, process_counts_as_ready_only_with_a_handler_for_the_dump) {
  const std::string ready = signal_row("SigIgn", {}) + signal_row("SigCgt", {SIGHUP, SIGUSR1, SIGALRM, SIGTERM});
  const std::string early = signal_row("SigIgn", {SIGUSR1}) + signal_row("SigCgt", {SIGHUP, SIGTERM});
  EXPECT_TRUE(parse_catches_dump_signal(("Name:\ttarnwick\n" + ready).c_str()));
  EXPECT_FALSE(parse_catches_dump_signal(("Name:\ttarnwick\n" + early).c_str()));
  EXPECT_FALSE(parse_catches_dump_signal("Name:\ttarnwick\n"));
}

TEST(status_daemon_process, own_process_is_read) {
  process_facts facts;
  std::signal(SIGUSR1, SIG_DFL);
  ASSERT_TRUE(read_process(facts, getpid()));
  EXPECT_FALSE(facts.catches_dump_signal);
  EXPECT_EQ(facts.parent, getppid());
  EXPECT_EQ(facts.network, own_network_namespace());
  std::signal(SIGUSR1, [](int) {});
  ASSERT_TRUE(read_process(facts, getpid()));
  EXPECT_TRUE(facts.catches_dump_signal);
  std::signal(SIGUSR1, SIG_DFL);
}

process_facts daemon_at(pid_t pid, pid_t parent, std::uint64_t network, bool is_ready = true) {
  return process_facts{pid, parent, {"tarnwick"}, 0, network, is_ready, 0};
}

process_facts daemon_below_supervisor(pid_t pid, std::uint64_t network, std::uint64_t supervisor_network) {
  return process_facts{pid, 1, {"tarnwick"}, 0, network, true, supervisor_network};
}

daemon_search search(std::initializer_list<process_facts> processes, process_facts &chosen) {
  rows_of<process_facts> daemons;
  for (const process_facts &process : processes) {
    add_row(daemons, process);
  }
  const daemon_search found = choose_daemon(chosen, daemons, 100);
  free_rows(daemons);
  return found;
}

TEST(status_daemon_process, only_daemon_is_chosen_wherever_it_runs) {
  process_facts chosen{};
  EXPECT_EQ(search({daemon_at(5, 1, 200)}, chosen), daemon_search::found);
  EXPECT_EQ(chosen.pid, 5);
}

TEST(status_daemon_process, shell_command_about_to_start_is_not_taken_for_a_second_daemon) {
  process_facts chosen{};
  EXPECT_EQ(search({daemon_at(6, 5, 100), daemon_at(5, 1, 100)}, chosen), daemon_search::found);
  EXPECT_EQ(chosen.pid, 5);
}

TEST(status_daemon_process, of_several_daemons_the_one_of_this_network_is_chosen) {
  process_facts chosen{};
  EXPECT_EQ(search({daemon_at(5, 1, 200), daemon_at(6, 1, 100)}, chosen), daemon_search::found);
  EXPECT_EQ(chosen.pid, 6);
  EXPECT_EQ(search({daemon_at(5, 1, 100), daemon_at(6, 1, 100)}, chosen), daemon_search::several);
  EXPECT_EQ(search({daemon_at(5, 1, 200), daemon_at(6, 1, 300)}, chosen), daemon_search::several);
}

TEST(status_daemon_process, of_several_private_networks_the_one_of_a_supervisor_in_this_network_is_chosen) {
  process_facts chosen{};
  EXPECT_EQ(search({daemon_at(5, 1, 200), daemon_below_supervisor(6, 300, 100), daemon_below_supervisor(7, 400, 900)},
                   chosen),
            daemon_search::found);
  EXPECT_EQ(chosen.pid, 6);
  EXPECT_EQ(search({daemon_below_supervisor(6, 300, 100), daemon_at(5, 1, 100)}, chosen), daemon_search::found);
  EXPECT_EQ(chosen.pid, 5);
  EXPECT_EQ(search({daemon_below_supervisor(6, 300, 100), daemon_below_supervisor(7, 400, 100)}, chosen),
            daemon_search::several);
}

TEST(status_daemon_process, daemon_that_is_still_starting_is_not_asked) {
  process_facts chosen{};
  EXPECT_EQ(search({daemon_at(5, 1, 100, false)}, chosen), daemon_search::not_ready);
  EXPECT_EQ(search({}, chosen), daemon_search::none);
}

} // namespace

#include "status/daemon_process.h"
#include "status/json_text.h"
#include "status/printable.h"
#include "status/state_files.h"
#include "status/trusted_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;
constexpr timespec ever{};

// A folder of its own, sticky or not, with things in place of a state file.
struct status_trusted_file : testing::Test {
  status_trusted_file() {
    char name[] = "/tmp/tarnwick-status-test-XXXXXX";
    folder = mkdtemp(name);
    path = folder + "/state";
    other = folder + "/other";
  }

  ~status_trusted_file() override {
    for (const std::string &name : {path, other}) {
      unlink(name.c_str());
      rmdir(name.c_str());
    }
    rmdir(folder.c_str());
  }

  void given_sticky_folder() const { ASSERT_EQ(chmod(folder.c_str(), 01777), 0); }

  void given_file(const std::string &contents = "text\n") const { std::ofstream(path) << contents; }

  void given_owner(uid_t user) const {
    if (geteuid() != 0) {
      GTEST_SKIP() << "needs root";
    }
    ASSERT_EQ(lchown(path.c_str(), user, user), 0);
  }

  file_trust looked_at() const { return look_at_state_file(path.c_str(), geteuid()); }

  // What is read; empty with `reason` where it is refused.
  std::string contents(const timespec &since = ever) {
    text content;
    reason = read_state_file(content, path.c_str(), geteuid(), since) ? 0 : errno;
    std::string got(text_of(content), content.count);
    free_rows(content);
    return got;
  }

  std::string folder;
  std::string path;
  std::string other;
  int reason = 0;
};

TEST_F(status_trusted_file, own_file_is_read) {
  given_file();
  EXPECT_EQ(contents(), "text\n");
  EXPECT_EQ(looked_at(), file_trust::good);
}

TEST_F(status_trusted_file, missing_file_does_no_harm) {
  EXPECT_EQ(looked_at(), file_trust::good);
  EXPECT_EQ(contents(), "");
  EXPECT_EQ(reason, ENOENT);
}

TEST_F(status_trusted_file, file_older_than_the_request_is_not_read) {
  given_file();
  timespec tomorrow{};
  clock_gettime(CLOCK_REALTIME, &tomorrow);
  tomorrow.tv_sec += 86400;
  EXPECT_EQ(contents(tomorrow), "");
  EXPECT_EQ(reason, ESTALE);
}

TEST_F(status_trusted_file, file_as_old_as_the_request_is_read) {
  given_file();
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  EXPECT_EQ(contents(found.st_mtim), "text\n");
  timespec later = found.st_mtim;
  ++later.tv_nsec;
  EXPECT_EQ(contents(later), "");
}

TEST_F(status_trusted_file, no_more_than_the_limit_is_read) {
  given_file();
  ASSERT_EQ(truncate(path.c_str(), 2'000'000'000), 0);
  EXPECT_EQ(contents().size(), LARGEST_STATE_FILE_BYTES);
}

TEST_F(status_trusted_file, whole_file_of_the_limit_is_read) {
  given_file(std::string(LARGEST_STATE_FILE_BYTES, 'x'));
  EXPECT_EQ(contents(), std::string(LARGEST_STATE_FILE_BYTES, 'x'));
}

TEST_F(status_trusted_file, file_with_a_second_name_is_not_read) {
  given_file();
  ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
  EXPECT_EQ(contents(), "");
  EXPECT_EQ(reason, EPERM);
  EXPECT_EQ(looked_at(), file_trust::replaced);
}

TEST_F(status_trusted_file, file_of_another_user_is_not_read) {
  given_file();
  given_owner(nobody);
  if (IsSkipped()) {
    return;
  }
  EXPECT_EQ(contents(), "");
  EXPECT_EQ(reason, EPERM);
  EXPECT_EQ(looked_at(), file_trust::replaced);
}

TEST_F(status_trusted_file, link_is_not_followed) {
  std::ofstream(other) << "precious\n";
  ASSERT_EQ(symlink(other.c_str(), path.c_str()), 0);
  EXPECT_EQ(contents(), "");
  EXPECT_EQ(reason, ELOOP);
  EXPECT_EQ(looked_at(), file_trust::is_a_link);
}

TEST_F(status_trusted_file, planted_link_and_fifo_are_the_daemons_to_replace_in_a_sticky_folder_alone) {
  for (const bool is_fifo : {false, true}) {
    ASSERT_EQ(is_fifo ? mkfifo(path.c_str(), 0666) : symlink(other.c_str(), path.c_str()), 0);
    given_owner(nobody);
    if (IsSkipped()) {
      return;
    }
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    EXPECT_EQ(looked_at(), file_trust::refused);
    given_sticky_folder();
    EXPECT_EQ(looked_at(), file_trust::replaced);
    EXPECT_EQ(contents(), "");
    unlink(path.c_str());
  }
}

TEST_F(status_trusted_file, folder_and_own_fifo_are_refused) {
  given_sticky_folder();
  ASSERT_EQ(mkdir(path.c_str(), 0777), 0);
  EXPECT_EQ(looked_at(), file_trust::refused);
  EXPECT_EQ(contents(), "");
  ASSERT_EQ(rmdir(path.c_str()), 0);
  ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
  EXPECT_EQ(looked_at(), file_trust::refused);
  EXPECT_EQ(contents(), "");
}

TEST(status_trust, user_is_known_only_where_all_four_numbers_agree) {
  EXPECT_EQ(parse_user("Name:\ttarnwick\nUid:\t0\t0\t0\t0\nGid:\t1\t1\t1\t1\n"), 0U);
  EXPECT_EQ(parse_user("Name:\ttarnwick\nUid:\t1000\t1000\t1000\t1000\n"), 1000U);
  for (const char *differs : {"\nUid:\t1000\t0\t0\t0\n", "\nUid:\t0\t1000\t0\t0\n", "\nUid:\t0\t0\t1000\t0\n",
                              "\nUid:\t0\t0\t0\t1000\n", "\nUid:\t0\t0\t0\n", "Uid:\t0\t0\t0\t0\n", ""}) {
    EXPECT_EQ(parse_user(differs), NO_USER) << differs;
  }
}

process_facts process(pid_t pid, uid_t user, raw_socket_use use) {
  return {pid, 1, {"tarnwick"}, 0, 7, true, 0, user, use};
}

daemon_search chosen_of(std::initializer_list<process_facts> processes, pid_t &chosen) {
  rows_of<process_facts> daemons;
  for (const process_facts &one : processes) {
    add_row(daemons, one);
  }
  process_facts found{};
  const daemon_search result = choose_daemon(found, daemons, 7);
  chosen = found.pid;
  free_rows(daemons);
  return result;
}

TEST(status_trust, process_of_another_user_changes_nothing) {
  const uid_t stranger = geteuid() + 1;
  pid_t chosen = 0;
  EXPECT_EQ(chosen_of({process(5, stranger, raw_socket_use::held)}, chosen), daemon_search::none);
  EXPECT_EQ(chosen_of({process(5, NO_USER, raw_socket_use::held)}, chosen), daemon_search::none);
  process_facts child = process(6, 0, raw_socket_use::held);
  child.parent = 5;
  EXPECT_EQ(chosen_of({process(5, stranger, raw_socket_use::held), child}, chosen), daemon_search::found);
  EXPECT_EQ(chosen, 6);
}

TEST(status_trust, name_alone_is_not_asked) {
  pid_t chosen = 0;
  EXPECT_EQ(chosen_of({process(5, 0, raw_socket_use::none)}, chosen), daemon_search::not_ready);
  EXPECT_EQ(chosen_of({process(5, 0, raw_socket_use::none), process(6, 0, raw_socket_use::held)}, chosen),
            daemon_search::found);
  EXPECT_EQ(chosen, 6);
}

TEST(status_trust, process_that_a_supervisor_started_is_asked) {
  process_facts supervised = process(5, 0, raw_socket_use::none);
  supervised.supervisor_network = 7;
  pid_t chosen = 0;
  EXPECT_EQ(chosen_of({supervised}, chosen), daemon_search::found);
}

std::string printable(const char *bytes, bool is_utf8 = true) {
  text built;
  add_printable(built, bytes, is_utf8);
  std::string result = text_of(built);
  free_rows(built);
  return result;
}

TEST(status_trust, control_characters_are_replaced) {
  EXPECT_EQ(printable("\033[2Jbr0\a\r\x7f\t"), "?[2Jbr0????");
  EXPECT_EQ(printable("line\nline"), "line\nline");
  EXPECT_EQ(printable("\x9b"
                      "2J"),
            "?2J");
  EXPECT_EQ(printable("\xc2\x9b"
                      "2J"),
            "??2J");
  EXPECT_EQ(printable("\xc2"), "?");
  EXPECT_EQ(printable("l\xc3\xa4n \xe2\x96\x88"), "l\xc3\xa4n \xe2\x96\x88");
  EXPECT_EQ(printable("\xc0\x9b\xed\xa0\x80\xf5\x80\x80\x80"), "?????????");
}

TEST(status_trust, nothing_beyond_ascii_goes_to_a_terminal_of_another_character_set) {
  EXPECT_EQ(printable("\xc4\x9b", false), "??");
}

TEST(status_trust, groups_are_multicast_addresses_in_their_short_form) {
  rows_of<group_line> groups;
  parse_join_state(groups, "ifname: br0 group: ff0e:0:0:0:0:0:0:1 average: 1\n"
                           "ifname: br0 group: 224.1.2.3 average: 1\n"
                           "ifname: br0 group: 2001:db8::1 average: 1\n"
                           "ifname: br0 group: 192.0.2.1 average: 1\n"
                           "ifname: br0 group: \033]0;owned\a average: 1\n"
                           "ifname: br0 group: ff0e::1%br0 average: 1\n");
  ASSERT_EQ(groups.count, 2U);
  EXPECT_STREQ(groups.first[0].group.data(), "ff0e::1");
  EXPECT_STREQ(groups.first[1].group.data(), "224.1.2.3");
  free_rows(groups);
}

TEST(status_trust, protocols_are_the_daemons_two) {
  rows_of<interface_counters> interfaces;
  parse_type_messages(interfaces, "[XYZ]ifname: br0 query: 1 join: 1 leave: 1 timeout: 1\n"
                                  "[MLD]ifname: br0 query: 1 join: 1 leave: 1 timeout: 1\n");
  EXPECT_EQ(interfaces.count, 1U);
  free_rows(interfaces);
}

TEST(status_trust, name_that_the_kernel_does_not_know_is_not_taken) {
  constexpr char table[] = "Inter-|   Receive  |  Transmit\n face |bytes |bytes\n    lo: 0 0\n   br0: 1 2\nwan0:1 2\n";
  rows_of<interface_counters> interfaces;
  rows_of<group_line> groups;
  parse_type_messages(interfaces, "[MLD]ifname: br0 query: 1 join: 1 leave: 1 timeout: 1\n"
                                  "[MLD]ifname: br query: 1 join: 1 leave: 1 timeout: 1\n"
                                  "[MLD]ifname: \033[2J query: 1 join: 1 leave: 1 timeout: 1\n"
                                  "[MLD]ifname: wan0 query: 1 join: 1 leave: 1 timeout: 1\n");
  parse_join_state(groups, "ifname: lan9 group: ff0e::1 average: 1\nifname: br0 group: ff0e::1 average: 1\n");
  confirm_interfaces(interfaces, groups, table);
  ASSERT_EQ(interfaces.count, 4U);
  EXPECT_STREQ(interfaces.first[0].name.data(), "br0");
  EXPECT_STREQ(interfaces.first[1].name.data(), GONE_INTERFACE);
  EXPECT_STREQ(interfaces.first[2].name.data(), GONE_INTERFACE);
  EXPECT_STREQ(interfaces.first[3].name.data(), "wan0");
  EXPECT_STREQ(groups.first[0].interface.data(), GONE_INTERFACE);
  EXPECT_STREQ(groups.first[1].interface.data(), "br0");
  free_rows(interfaces);
  free_rows(groups);
}

} // namespace

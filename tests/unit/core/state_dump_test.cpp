#include "core/state_dump.h"

#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_shutdown.h"
#include "tests/unit/mld/fixture.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace scripted;

constexpr char host_in_group[] = "/tmp/tarnwick_host_in_group";
constexpr char type_messages[] = "/tmp/tarnwick_type_messages";
constexpr char join_state[] = "/tmp/tarnwick_join_state";

std::string opening(const std::string &path) {
  return "open(" + path + ", O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)";
}

const lines all_opened = {opening(host_in_group), opening(type_messages), opening(join_state)};
const std::string failed_error = logged_error("router_dump", "Create /tmp/tarnwick_type_messages failed!");

void plant(const std::string &kind, const char *path) {
  const std::string real_path = redirected(path);
  std::filesystem::remove(real_path);
  if (kind == "symbolic link") {
    std::ofstream(Kernel.directory + "/victim") << "precious\n";
    std::filesystem::create_symlink(Kernel.directory + "/victim", real_path);
  } else if (kind == "FIFO") {
    ASSERT_EQ(mkfifo(real_path.c_str(), 0600), 0);
  } else {
    std::filesystem::create_directory(real_path);
  }
  proxy_fixture::given_of_nobody(real_path);
}

// The look at what stands in the way of a file; a directory needs none.
lines looks_at(const std::string &kind, const std::string &path) {
  if (kind == "directory") {
    return {};
  }
  return {"open(" + path + ", O_PATH|O_NOFOLLOW|O_CLOEXEC)", "open(/tmp, O_PATH|O_DIRECTORY|O_CLOEXEC)"};
}

// The three files are opened in their order, with a look at the one where something is planted.
lines opened_around(const std::string &kind, const std::string &planted) {
  lines expected;
  for (const char *path : {host_in_group, type_messages, join_state}) {
    expected.push_back(opening(path));
    if (path == planted) {
      const lines looks = looks_at(kind, planted);
      expected.insert(expected.end(), looks.begin(), looks.end());
    }
  }
  return expected;
}

constexpr const char *planted_kinds[] = {"symbolic link", "FIFO", "directory"};

struct state_dump : mld_fixture {
  void when_dumped() {
    when([] { write_state_dump(); });
  }
};

TEST_F(state_dump, every_interface_gets_its_counters_the_upstream_one_too) {
  br0->query_count = 1;
  br0->join_count = 2;
  br0->leave_count = 3;
  br0->timeout_count = 4;
  wan0->query_count = 5;
  when_dumped();
  then(all_opened);
  EXPECT_EQ(file_contents(type_messages), "[MLD]ifname: lan1 query: 0 join: 0 leave: 0 timeout: 0\n"
                                          "[MLD]ifname: br0 query: 1 join: 2 leave: 3 timeout: 4\n"
                                          "[MLD]ifname: wan0 query: 5 join: 0 leave: 0 timeout: 0\n");
  EXPECT_EQ(file_contents(join_state), "");
  EXPECT_EQ(file_contents(host_in_group), "");
}

TEST_F(state_dump, every_group_of_every_interface_is_listed_newest_first) {
  given_group(br0, "ff0e::1:2:3")->active_seconds = 7;
  given_group(br0, "ff05::16");
  given_group(lan1, "ff0e::1:2:3")->active_seconds = 1;
  given_group(br0, "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255")->active_seconds = 99;
  when_dumped();
  then(all_opened);
  EXPECT_EQ(file_contents(join_state), "ifname: lan1 group: ff0e::1:2:3 average: 1\n"
                                       "ifname: br0 group: ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff average: 99\n"
                                       "ifname: br0 group: ff05::16 average: 0\n"
                                       "ifname: br0 group: ff0e::1:2:3 average: 7\n");
  EXPECT_EQ(file_contents(host_in_group), "");
}

TEST_F(state_dump, no_ipv6_group_ends_the_list) {
  given_group(br0, "ff0e::3");
  given_group(br0, "ff02::1");
  given_group(br0, "ff02::16");
  given_group(br0, "::224.0.0.1");
  when_dumped();
  then(all_opened);
  EXPECT_EQ(file_contents(join_state), "ifname: br0 group: ::224.0.0.1 average: 0\n"
                                       "ifname: br0 group: ff02::16 average: 0\n"
                                       "ifname: br0 group: ff02::1 average: 0\n"
                                       "ifname: br0 group: ff0e::3 average: 0\n");
}

TEST_F(state_dump, group_without_reports_shows_no_seconds) {
  mld_group *silent = given_group(br0, "ff0e::1");
  silent->active_seconds = 500;
  silent->report_count = 0;
  mld_group *reported = given_group(br0, "ff0e::2");
  reported->active_seconds = 500;
  reported->report_count = 3;
  when_dumped();
  then(all_opened);
  EXPECT_EQ(file_contents(join_state), "ifname: br0 group: ff0e::2 average: 500\n"
                                       "ifname: br0 group: ff0e::1 average: 0\n");
}

TEST_F(state_dump, group_that_is_being_checked_is_listed_like_any_other) {
  mld_group *group = given_group(br0, "ff0e::1");
  given_checking(group, 2, 1);
  when_dumped();
  then(all_opened);
  EXPECT_EQ(file_contents(join_state), "ifname: br0 group: ff0e::1 average: 0\n");
}

TEST_F(state_dump, counters_of_years_show_as_signed_numbers) {
  br0->query_count = 0x80000000u;
  given_group(br0, "ff0e::1")->active_seconds = std::numeric_limits<std::int32_t>::max();
  when_dumped();
  then(all_opened);
  EXPECT_NE(file_contents(type_messages)->find("br0 query: -2147483648 join"), std::string::npos);
  EXPECT_EQ(file_contents(join_state), "ifname: br0 group: ff0e::1 average: 2147483647\n");
}

TEST_F(state_dump, next_dump_replaces_the_one_before) {
  mld_group *group = given_group(br0, "ff0e::1");
  when_dumped();
  mld_unlink_group(br0, group);
  list_add(&MldRouter.free_groups, &group->link);
  std::ofstream(redirected(host_in_group)) << "left over\n";
  when_dumped();
  then({opening(host_in_group), opening(type_messages), opening(join_state), //
        opening(host_in_group), opening(type_messages), opening(join_state)});
  EXPECT_EQ(file_contents(join_state), "");
  EXPECT_EQ(file_contents(host_in_group), "");
  EXPECT_EQ(file_contents(type_messages), "[MLD]ifname: lan1 query: 0 join: 0 leave: 0 timeout: 0\n"
                                          "[MLD]ifname: br0 query: 0 join: 0 leave: 0 timeout: 0\n"
                                          "[MLD]ifname: wan0 query: 0 join: 0 leave: 0 timeout: 0\n");
}

TEST_F(state_dump, dump_loses_no_descriptor) {
  const std::set<int> before = open_descriptors();
  when_dumped();
  then(all_opened);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(state_dump, without_its_file_of_interfaces_the_dump_is_given_up) {
  given_failure(opening(type_messages), EROFS);
  given_group(br0, "ff0e::1");
  when_dumped();
  then({opening(host_in_group), opening(type_messages), opening(join_state), failed_error});
  EXPECT_EQ(file_contents(join_state), "");
  EXPECT_EQ(file_contents(type_messages), std::nullopt);
}

TEST_F(state_dump, given_up_dump_leaves_its_other_two_streams_open) {
  given_failure(opening(type_messages), EROFS);
  const std::set<int> before = open_descriptors();
  when_dumped();
  then_anything();
  const std::set<int> after = open_descriptors();
  EXPECT_EQ(after.size(), before.size() + 2);
  for (const int descriptor : after) {
    if (before.count(descriptor) == 0) {
      close(descriptor); // the streams around them stay lost
    }
  }
}

TEST_F(state_dump, other_file_that_cannot_be_opened_goes_unnoticed) {
  given_group(br0, "ff0e::1");
  for (const char *path : {host_in_group, join_state}) {
    given_failure(opening(path), ENOSPC);
    when_dumped();
    then(all_opened);
    EXPECT_NE(file_contents(type_messages)->find("[MLD]ifname: br0"), std::string::npos);
  }
  EXPECT_EQ(file_contents(join_state), "ifname: br0 group: ff0e::1 average: 0\n"); // of the first dump
}

TEST_F(state_dump, no_file_at_all_is_one_error_line) {
  given_failure("open(", EMFILE, 3);
  when_dumped();
  then({opening(host_in_group), opening(type_messages), opening(join_state), failed_error});
}

TEST_F(state_dump, whatever_is_planted_for_the_file_of_interfaces_is_refused_like_a_failed_open) {
  for (const char *kind : planted_kinds) {
    plant(kind, type_messages);
    when_dumped();
    lines expected = opened_around(kind, type_messages);
    expected.push_back(failed_error);
    then(expected);
  }
  EXPECT_EQ(file_contents("/tmp/victim"), "precious\n");
}

TEST_F(state_dump, whatever_is_planted_for_another_file_is_skipped) {
  given_group(br0, "ff0e::1");
  for (const char *path : {host_in_group, join_state}) {
    for (const char *kind : planted_kinds) {
      plant(kind, path);
      when_dumped();
      then(opened_around(kind, path));
      EXPECT_NE(file_contents(type_messages)->find("[MLD]ifname: br0"), std::string::npos) << kind;
    }
  }
  EXPECT_EQ(file_contents("/tmp/victim"), "precious\n");
}

TEST_F(state_dump, files_are_closed_with_the_messages_last) {
  when_dumped();
  then(all_opened);
  EXPECT_EQ(Kernel.closed_files, (lines{"tarnwick_host_in_group", "tarnwick_join_state", "tarnwick_type_messages"}));
}

struct state_dump_without_interfaces : core_fixture {};

TEST_F(state_dump_without_interfaces, three_empty_files_are_left) {
  when([] { write_state_dump(); });
  then(all_opened);
  for (const char *path : {host_in_group, type_messages, join_state}) {
    EXPECT_EQ(file_contents(path), "") << path;
  }
}

TEST_F(state_dump_without_interfaces, stopped_proxy_leaves_nothing_to_list) {
  Kernel.interfaces = {{"wan0", 2, 0x1003, "fe80::2"}, {"br0", 3, 0x1003, "fe80::3"}};
  EXPECT_EQ(when_started({"-u", "wan0", "-d", "br0"}), 0);
  when([] { mld_proxy_stop(); });
  then_anything();
  when([] { write_state_dump(); });
  then(all_opened);
  EXPECT_EQ(file_contents(type_messages), "");
}

} // namespace

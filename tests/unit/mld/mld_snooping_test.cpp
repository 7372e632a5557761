#include "mld/mld_snooping.h"

#include "fixture.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace {

using namespace scripted;

const std::string path = "/tmp/tarnwick_leave_record";
const std::string opened = "open(" + path + ", O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)";
const std::string look = "open(" + path + ", O_PATH|O_NOFOLLOW|O_CLOEXEC)";
const std::string look_at_folder = "open(/tmp, O_PATH|O_DIRECTORY|O_CLOEXEC)";
const std::string signalled = "system(killall -USR2 igmp_snooping)";
const std::string open_failed = logged_error("mld_snooping_leave", "Open file \"/tmp/tarnwick_leave_record\" failed.");

struct mld_snooping : proxy_fixture {
  void when_left(const std::string &source, const std::string &group) {
    when([&] { mld_snooping_leave(address(source), address(group)); });
  }

  void then_record_is(const std::string &contents) {
    then({opened, signalled});
    EXPECT_EQ(file_contents(path), contents);
  }
};

TEST_F(mld_snooping, leave_of_a_group_writes_the_group_alone) {
  when_left("::", "ff0e::1:2:3");
  then_record_is("grp=ff0e::1:2:3\n");
}

TEST_F(mld_snooping, leave_of_a_source_writes_both) {
  when_left("2001:db8::1", "ff0e::1");
  then_record_is("src=2001:db8::1\ngrp=ff0e::1\n");
}

TEST_F(mld_snooping, record_is_complete_when_the_snooping_program_is_signalled) {
  std::optional<std::string> record_at_signal;
  Kernel.on_request = [&](const std::string &request) {
    record_at_signal = request == signalled ? file_contents(path) : record_at_signal;
  };
  when_left("2001:db8::1", "ff0e::1");
  then_record_is("src=2001:db8::1\ngrp=ff0e::1\n");
  EXPECT_EQ(record_at_signal, "src=2001:db8::1\ngrp=ff0e::1\n");
}

TEST_F(mld_snooping, second_leave_overwrites_the_first) {
  when_left("2001:db8::1", "ff0e::1:2:3");
  then_record_is("src=2001:db8::1\ngrp=ff0e::1:2:3\n");
  when_left("::", "ff0e::4");
  then_record_is("grp=ff0e::4\n");
}

// Kept for compatibility.
TEST_F(mld_snooping, addresses_over_fifteen_characters_leave_their_lines_empty) {
  struct row {
    const char *source;
    const char *group;
    const char *record;
  };
  const row rows[] = {
      {"::", "ff0e::1234:5678", "grp=ff0e::1234:5678\n"},
      {"::", "ff0e::1:1234:567", "grp=\n"},
      {"::", "ff0e::1234:5678:9abc:def0", "grp=\n"},
      {"2001:db8::1:2:3", "ff0e::1", "src=2001:db8::1:2:3\ngrp=ff0e::1\n"},
      {"2001:db8::1:2:34", "ff0e::1", "src=\ngrp=ff0e::1\n"},
      {"2001:db8::1:2:34", "ff0e::1234:5678:9abc:def0", "src=\ngrp=\n"},
  };
  for (const row &one : rows) {
    when_left(one.source, one.group);
    then_record_is(one.record);
  }
}

TEST_F(mld_snooping, record_that_cannot_be_opened_is_logged_and_nobody_signalled) {
  given_failure("open(", EROFS);
  when_left("::", "ff0e::1");
  then({opened, open_failed});
  EXPECT_TRUE(Kernel.commands.empty());
}

TEST_F(mld_snooping, planted_symbolic_link_is_not_followed) {
  std::ofstream(redirected("/tmp/victim")) << "precious";
  std::filesystem::create_symlink(redirected("/tmp/victim"), redirected(path));
  given_of_nobody(redirected(path));
  when_left("::", "ff0e::1");
  then({opened, look, look_at_folder, open_failed});
  EXPECT_EQ(file_contents("/tmp/victim"), "precious");
}

TEST_F(mld_snooping, planted_fifo_does_not_stop_the_proxy) {
  ASSERT_EQ(mkfifo(redirected(path).c_str(), 0600), 0);
  given_of_nobody(redirected(path));
  when_left("::", "ff0e::1");
  then({opened, look, look_at_folder, open_failed});
}

TEST_F(mld_snooping, missing_snooping_program_does_not_matter) {
  given_failure("system(", ENOENT);
  when_left("::", "ff0e::1");
  then({opened, signalled});
}

} // namespace

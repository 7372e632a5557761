#include "igmp/igmp_snooping.h"

#include "fixture.h"

#include <cerrno>
#include <filesystem>

namespace {

using namespace scripted;

constexpr char leave_record[] = "/tmp/igmprt_leave_record";
constexpr char group_address[] = "239.1.2.3";

const lines record_lines{
    "open(/tmp/igmprt_leave_record, O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)",
    "system(killall -USR1 igmp_snooping)",
};

struct igmp_snooping : igmp_fixture {};

TEST_F(igmp_snooping, leave_record_names_a_source_only_if_there_is_one) {
  int result = -1;
  when([&] { result = igmp_snooping_leave(word("192.0.2.7"), word(group_address)); });
  then(record_lines);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(file_contents(leave_record), "src=192.0.2.7\ngrp=239.1.2.3\n");
  when([&] { igmp_snooping_leave(InAddrAny, word("239.255.255.255")); });
  then(record_lines);
  EXPECT_EQ(file_contents(leave_record), "grp=239.255.255.255\n");
}

TEST_F(igmp_snooping, record_is_complete_when_the_snooping_program_is_signalled) {
  std::optional<std::string> record_at_signal;
  Kernel.on_request = [&](const std::string &request) {
    record_at_signal = request == record_lines[1] ? file_contents(leave_record) : record_at_signal;
  };
  when([&] { igmp_snooping_leave(word("192.0.2.7"), word(group_address)); });
  then(record_lines);
  EXPECT_EQ(record_at_signal, "src=192.0.2.7\ngrp=239.1.2.3\n");
}

TEST_F(igmp_snooping, refused_command_is_reported_by_its_result) {
  given_failure("system(", ENOMEM);
  int result = 0;
  when([&] { result = igmp_snooping_leave(InAddrAny, word(group_address)); });
  then(record_lines);
  EXPECT_EQ(result, -1);
}

TEST_F(igmp_snooping, leave_record_does_not_follow_a_planted_link) {
  std::filesystem::create_symlink(Kernel.directory + "/victim", redirected(leave_record));
  given_of_nobody(redirected(leave_record));
  int result = 0;
  when([&] { result = igmp_snooping_leave(InAddrAny, word(group_address)); });
  then({record_lines[0], "open(/tmp/igmprt_leave_record, O_PATH|O_NOFOLLOW|O_CLOEXEC)",
        "open(/tmp, O_PATH|O_DIRECTORY|O_CLOEXEC)"});
  EXPECT_EQ(result, -1);
  EXPECT_FALSE(std::filesystem::exists(Kernel.directory + "/victim"));
}

} // namespace

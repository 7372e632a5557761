#include "run/options.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

struct run_command_line : testing::Test {
  command read(const std::vector<std::string> &words) {
    arguments.assign(1, const_cast<char *>("tarnwick-run"));
    kept = words;
    for (std::string &word : kept) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    testing::internal::CaptureStderr();
    const command chosen = read_command_line(static_cast<int>(arguments.size()) - 1, arguments.data(), options);
    said = testing::internal::GetCapturedStderr();
    return chosen;
  }

  std::vector<std::string> kept;
  std::vector<char *> arguments;
  run_options options;
  std::string said;
};

} // namespace

TEST_F(run_command_line, two_interfaces_are_enough_and_the_rest_has_defaults) {
  ASSERT_EQ(read({"-u", "wan0", "-d", "br0,lan1"}), command::run);
  EXPECT_STREQ(options.upstream.data(), "wan0");
  ASSERT_EQ(options.downstream_count, 2U);
  EXPECT_STREQ(options.downstreams[1].data(), "lan1");
  EXPECT_EQ(options.network, network_mode::host);
  EXPECT_EQ(options.log, log_choice::info);
  EXPECT_EQ(options.log_file_bytes, 1048576U);
  EXPECT_TRUE(options.has_companion);
  EXPECT_EQ(options.daemon_option_count, 0U);
}

TEST_F(run_command_line, every_option_reaches_its_field) {
  ASSERT_EQ(read({"--upstream=wan0", "--downstream=br0", "--network=private", "--upstream-link=ipvlan", "--log=none",
                  "--log-file=/f", "--log-file-size=4096", "--nvram=/n", "--runtime-folder=/r", "--preload=/p",
                  "--no-assist", "--assist-options=-x", "--", "-q", "1"}),
            command::run);
  EXPECT_EQ(options.network, network_mode::own);
  EXPECT_EQ(options.upstream_link, upstream_link_kind::ipvlan);
  EXPECT_EQ(options.log, log_choice::none);
  EXPECT_STREQ(options.log_file, "/f");
  EXPECT_EQ(options.log_file_bytes, 4096U);
  EXPECT_STREQ(options.nvram_file, "/n");
  EXPECT_STREQ(options.runtime_folder, "/r");
  EXPECT_STREQ(options.flush_library, "/p");
  EXPECT_FALSE(options.has_companion);
  EXPECT_STREQ(options.companion_options, "-x");
  ASSERT_EQ(options.daemon_option_count, 2U);
  EXPECT_STREQ(options.daemon_options[1], "1");
}

TEST_F(run_command_line, mistakes_are_refused_with_a_reason) {
  EXPECT_EQ(read({"-d", "br0"}), command::refuse);
  EXPECT_NE(said.find("option -u <upstream> is missing"), std::string::npos);
  EXPECT_EQ(read({"-u", "wan0"}), command::refuse);
  EXPECT_EQ(read({"-u", "wan0", "-d", "wan0"}), command::refuse);
  EXPECT_NE(said.find("given twice"), std::string::npos);
  EXPECT_EQ(read({"-u", "wan0", "-d", "a,b,c,d,e,f,g,h,i"}), command::refuse);
  EXPECT_EQ(read({"-u", "wan0", "-d", "br0", "--log=loud"}), command::refuse);
  EXPECT_EQ(read({"-u", "wan0", "-d", "br0", "--log-file-size=10"}), command::refuse);
  EXPECT_EQ(read({"-u", "wan0", "-d", "br0", "stray"}), command::refuse);
  EXPECT_NE(said.find("unexpected argument \"stray\""), std::string::npos);
  EXPECT_EQ(read({"-u", "wan0", "-d", "br0", "--unknown"}), command::refuse);
  EXPECT_EQ(read({"-u", "sixteen-letters-", "-d", "br0"}), command::refuse);
}

TEST_F(run_command_line, daemon_may_not_leave_the_foreground) {
  EXPECT_EQ(read({"-u", "wan0", "-d", "br0", "--", "-b"}), command::refuse);
  EXPECT_NE(said.find("tarnwick has to stay in the foreground"), std::string::npos);
  EXPECT_EQ(read({"-u", "wan0", "-d", "br0", "--", "-vb"}), command::refuse);
  EXPECT_EQ(read({"-u", "wan0", "-d", "br0", "--", "-ibr1", "-i", "-b"}), command::run) << "a value is not an option";
}

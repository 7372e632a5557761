#include "status/options.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

namespace {

bool parse(std::vector<std::string> words, status_options &options) {
  words.insert(words.begin(), "tarnwick-status");
  std::vector<char *> arguments;
  for (std::string &word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  optind = 0; // glibc: begin anew
  return parse_status_options(options, static_cast<int>(words.size()), arguments.data());
}

TEST(status_options, table_is_shown_once_without_options) {
  status_options options;
  ASSERT_TRUE(parse({}, options));
  EXPECT_EQ(options.mode, status_mode::once);
  EXPECT_EQ(options.daemon, 0);
}

TEST(status_options, watch_takes_its_seconds_in_every_usual_form) {
  status_options options;
  ASSERT_TRUE(parse({"--watch"}, options));
  EXPECT_EQ(options.mode, status_mode::watch);
  EXPECT_EQ(options.watch_seconds, DEFAULT_WATCH_SECONDS);
  for (const std::vector<std::string> &form :
       {std::vector<std::string>{"--watch", "5"}, {"--watch=5"}, {"-w", "5"}, {"-w5"}}) {
    ASSERT_TRUE(parse(form, options));
    EXPECT_EQ(options.watch_seconds, 5);
  }
  ASSERT_TRUE(parse({"--watch", "--pid", "77"}, options));
  EXPECT_EQ(options.watch_seconds, DEFAULT_WATCH_SECONDS);
  EXPECT_EQ(options.daemon, 77);
}

TEST(status_options, figures_that_make_no_sense_are_refused) {
  status_options options;
  for (const std::vector<std::string> &wrong : {std::vector<std::string>{"--watch", "0"},
                                                {"--watch", "soon"},
                                                {"-w", "3601"},
                                                {"--pid", "0"},
                                                {"--pid", "-1"},
                                                {"--pid", "12x"},
                                                {"--pid", "99999999999"},
                                                {"--pid"},
                                                {"--unknown"},
                                                {"extra"}}) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse(wrong, options)) << wrong.front();
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  }
}

TEST(status_options, help_and_version_win_over_what_follows) {
  status_options options;
  ASSERT_TRUE(parse({"--help", "--nonsense"}, options));
  EXPECT_EQ(options.mode, status_mode::help);
  ASSERT_TRUE(parse({"-V"}, options));
  EXPECT_EQ(options.mode, status_mode::version);
}

} // namespace

#include "assist/options.h"

#include "tests/support/companion_kernel.h"

namespace {

class options_of : public companion_fixture {
protected:
  assist_options options{};

  command read(std::vector<std::string> words) {
    words.insert(words.begin(), "tarnwick-assist");
    std::vector<char *> arguments;
    for (std::string &word : words) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    return read_command_line(static_cast<int>(words.size()), arguments.data(), options);
  }

  // The one line with which a command line is refused.
  std::string refusal(const std::vector<std::string> &words) {
    EXPECT_EQ(read(words), command::refuse);
    const lines written = said();
    EXPECT_EQ(written.size(), 1U);
    return written.empty() ? "" : written.front();
  }
};

} // namespace

TEST_F(options_of, short_options_name_the_interfaces) {
  ASSERT_EQ(read({"-u", "wan0", "-d", "br0,lan1"}), command::run);
  EXPECT_STREQ(options.upstream.data(), "wan0");
  ASSERT_EQ(options.downstream_count, 2U);
  EXPECT_STREQ(options.downstreams[0].data(), "br0");
  EXPECT_STREQ(options.downstreams[1].data(), "lan1");
}

TEST_F(options_of, long_options_and_repeated_lists_name_the_interfaces) {
  ASSERT_EQ(read({"--upstream=wan0", "--downstream", "br0", "--downstream", "lan1,lan2"}), command::run);
  EXPECT_EQ(options.downstream_count, 3U);
}

TEST_F(options_of, help_and_version_are_recognised) {
  EXPECT_EQ(read({"-h"}), command::show_help);
  EXPECT_EQ(read({"--help"}), command::show_help);
  EXPECT_EQ(read({"--version"}), command::show_version);
}

TEST_F(options_of, missing_options_are_named) {
  EXPECT_EQ(refusal({}), "option -u <upstream> is missing; --help shows the usage");
  EXPECT_EQ(refusal({"-d", "br0"}), "option -u <upstream> is missing; --help shows the usage");
  EXPECT_EQ(refusal({"-u", "wan0"}), "option -d <downstream>[,<downstream>...] is missing; --help shows the usage");
}

TEST_F(options_of, unknown_option_and_missing_argument_are_named) {
  const std::string complaint = "unknown option, or option without its argument: ";
  EXPECT_EQ(refusal({"-u", "wan0", "-x"}), complaint + "\"-x\"; --help shows the usage");
  EXPECT_EQ(refusal({"--upstrea", "wan0", "--wrong"}), complaint + "\"--wrong\"; --help shows the usage");
  EXPECT_EQ(refusal({"-u"}), complaint + "\"-u\"; --help shows the usage");
}

TEST_F(options_of, stray_argument_is_named) {
  EXPECT_EQ(refusal({"-u", "wan0", "-d", "br0", "lan1"}), "unexpected argument \"lan1\"; --help shows the usage");
}

TEST_F(options_of, names_that_no_interface_can_have_are_refused) {
  const std::string complaint = " cannot be the name of an interface (1 to 15 characters)";
  EXPECT_EQ(refusal({"-u", "sixteen-letters!"}), "\"sixteen-letters!\"" + complaint);
  EXPECT_EQ(refusal({"-u", ""}), "\"\"" + complaint);
  EXPECT_EQ(refusal({"-u", "wan0", "-d", "br0,"}), "\"\"" + complaint);
  EXPECT_EQ(refusal({"-u", "wan0", "-d", ",br0"}), "\"\"" + complaint);
  EXPECT_EQ(refusal({"-u", "a/b"}), "\"a/b\"" + complaint);
  EXPECT_EQ(refusal({"-u", "a:b"}), "\"a:b\"" + complaint);
  EXPECT_EQ(refusal({"-u", "a b"}), "\"a b\"" + complaint);
  EXPECT_EQ(refusal({"-u", ".."}), "\"..\"" + complaint);
  EXPECT_EQ(read({"-u", "fifteen-letters", "-d", "..."}), command::run);
}

TEST_F(options_of, interface_given_twice_is_refused) {
  EXPECT_EQ(refusal({"-u", "wan0", "-d", "br0,br0"}), "interface br0 is given twice");
  EXPECT_EQ(refusal({"-u", "wan0", "-d", "br0,wan0"}), "interface wan0 is given twice");
  EXPECT_EQ(refusal({"-u", "wan0", "-u", "wan1"}), "only one upstream interface can be served");
}

TEST_F(options_of, thirty_one_downstream_interfaces_fit) {
  std::string list = "lan0";
  for (int i = 1; i < 31; ++i) {
    list += ",lan" + std::to_string(i);
  }
  EXPECT_EQ(read({"-u", "wan0", "-d", list}), command::run);
  EXPECT_EQ(refusal({"-u", "wan0", "-d", list + ",lan31"}), "at most 31 downstream interfaces can be served");
}

TEST_F(options_of, every_remedy_can_be_left_out_by_its_name) {
  ASSERT_EQ(read({"-u", "wan0", "-d", "br0"}), command::run);
  EXPECT_EQ(options.without, remedies_off{});
  for (std::size_t i = 0; i < REMEDY_NAMES.size(); ++i) {
    ASSERT_EQ(read({"-u", "wan0", "-d", "br0", "--without=" + std::string(REMEDY_NAMES[i])}), command::run);
    remedies_off expected{};
    expected[i] = true;
    EXPECT_EQ(options.without, expected) << REMEDY_NAMES[i];
    choose_remedies(options.without);
    EXPECT_FALSE(is_on(static_cast<remedy>(i)));
  }
  choose_remedies({});
}

TEST_F(options_of, several_remedies_can_be_left_out) {
  ASSERT_EQ(
      read({"-u", "wan0", "-d", "br0", "--without", "ask-after-leave,general-queries", "--without=ask-after-end"}),
      command::run);
  EXPECT_TRUE(options.without[0] && options.without[1] && options.without[2]);
}

TEST_F(options_of, unknown_remedy_is_refused) {
  EXPECT_EQ(refusal({"--without=aspirin"}), "\"aspirin\" is not a remedy; --help lists them");
  EXPECT_EQ(refusal({"--without=ask-after-leave,"}), "\"\" is not a remedy; --help lists them");
}

TEST_F(options_of, help_lists_every_remedy) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(show_help(), 0);
  const std::string text = testing::internal::GetCapturedStdout();
  for (const std::string_view name : REMEDY_NAMES) {
    EXPECT_NE(text.find("\n  " + std::string(name) + " "), std::string::npos) << name;
  }
}

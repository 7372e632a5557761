#include "core/options.h"

#include "core/settings.h"
#include "fixture.h"
#include "mld/mld_router.h"
#include "mld/mld_start_up.h"

#include <algorithm>

namespace {

using namespace scripted;

struct options : core_fixture {};

using name_texts = std::vector<std::string>;

constexpr char parse[] = "parse_arguments";

// An empty text for a slot without a name.
name_texts texts_of(const name_pointers &names) {
  name_texts texts;
  for (const char *name : names) {
    texts.emplace_back(name != nullptr ? name : "");
  }
  return texts;
}

name_texts filled(name_texts names) {
  names.resize(INTERFACE_NAME_SLOTS);
  return names;
}

TEST_F(options, upstream_name_alone_leaves_every_default) {
  EXPECT_EQ(when_parsed({"-u", "wan0"}), 0);
  EXPECT_STREQ(UpstreamInterfacesName, "wan0");
  EXPECT_EQ(ProxyMode, PROXY_MODE_6TO6);
  EXPECT_EQ(ProxyDebugLevel, 0);
  EXPECT_EQ(ProxyIsADaemon, 0);
  EXPECT_EQ(ForceNonQuerier, 0);
  EXPECT_EQ(DownstreamInterfacesNum, 0);
  EXPECT_EQ(IgnoreInterfacesNum, 0);
  EXPECT_EQ(texts_of(DownstreamInterfacesName), filled({}));
  EXPECT_EQ(texts_of(IgnoreInterfacesName), filled({}));
  then({});
}

TEST_F(options, command_line_without_upstream_name_gets_the_usage_text) {
  const lines command_lines[] = {{}, {"-d", "br0"}, {"-v", "-b", "-m", "6to6", "-q", "0"}};
  for (const lines &arguments : command_lines) {
    EXPECT_EQ(when_parsed(arguments), -1);
    then(usage_lines);
  }
}

TEST_F(options, empty_upstream_name_counts_as_given) {
  EXPECT_EQ(when_parsed({"-u", ""}), 0);
  EXPECT_STREQ(UpstreamInterfacesName, "");
  then({});
}

TEST_F(options, unknown_letter_gets_the_usage_text) {
  const std::string errors = error_output_of([&] { EXPECT_EQ(when_parsed({"-u", "wan0", "-x"}), -1); });
  then(usage_lines);
  EXPECT_NE(errors.find('x'), std::string::npos); // getopt's own complaint stays
}

TEST_F(options, option_without_its_argument_gets_the_usage_text) {
  for (const char *option : {"-u", "-d", "-i", "-q", "-m"}) {
    error_output_of([&] { EXPECT_EQ(when_parsed({"-v", option}), -1) << option; });
    then(usage_lines);
  }
}

TEST_F(options, usage_text_is_the_same_byte_for_byte) {
  when([] { print_usage(); });
  EXPECT_EQ(Kernel.output, "Usage: tarnwick [-v] [-b] -u <interface name> -d <ignore interface name> -q <non-querier> "
                           "-m <4to4/4to6/6to6 mode>.\n"
                           "-v                   \t\t: Verbose mode - Print debug messages\n"
                           "-b                   \t\t: Daemon mode - Run in background\n"
                           "-u <interface name>  \t\t: Name of the interface on which the router is present\n"
                           "-d <interface name>  \t\t: Name of the interface on which the proxy is present\n"
                           "-q <non-querier>  \t\t: \"1\"--force to be non-querier, otherwise \"0\".\n"
                           "-m <4to4/4to6/6to6 mode>  \t: Specify IGMP/MLD mode for Lan to Wan\n"
                           "Example: tarnwick -v -u br1 -d br0\n"
                           "\n");
  then(usage_lines);
}

TEST_F(options, flags_are_taken) {
  EXPECT_EQ(when_parsed({"-v", "-b", "-u", "wan0"}), 0);
  EXPECT_EQ(ProxyDebugLevel, 10);
  EXPECT_EQ(ProxyIsADaemon, 1);
}

TEST_F(options, last_upstream_name_counts) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-u", "wan1"}), 0);
  EXPECT_STREQ(UpstreamInterfacesName, "wan1");
}

TEST_F(options, querier_is_forced_off_by_exactly_one) {
  const struct {
    const char *text;
    int forced;
  } rows[] = {{"1", 1}, {"yes", 0}, {"0", 0}, {"", 0}, {"1 ", 0}, {"11", 0}, {"01", 0}};
  for (const auto &row : rows) {
    ForceNonQuerier = 7;
    EXPECT_EQ(when_parsed({"-u", "wan0", "-q", row.text}), 0);
    EXPECT_EQ(ForceNonQuerier, row.forced) << "-q '" << row.text << "'";
  }
}

TEST_F(options, mode_6to6_is_taken_without_a_look_at_the_nvram) {
  given_nvram("a line that would be complained about\n");
  ProxyMode = PROXY_MODE_4TO4;
  const std::string errors = error_output_of([&] { EXPECT_EQ(when_parsed({"-u", "wan0", "-m", "6to6"}), 0); });
  EXPECT_EQ(ProxyMode, PROXY_MODE_6TO6);
  EXPECT_EQ(errors, "");
}

TEST_F(options, other_mode_falls_back_on_the_nvram) {
  given_nvram("tarnwick_mode=6to6\n");
  ProxyMode = PROXY_MODE_4TO4;
  EXPECT_EQ(when_parsed({"-u", "wan0", "-m", "4to4"}), 0);
  EXPECT_EQ(ProxyMode, PROXY_MODE_6TO6);
  then({});
}

TEST_F(options, other_mode_without_6to6_in_the_nvram_gets_the_usage_text) {
  const char *files[] = {"", "tarnwick_mode=4to6\n", "tarnwick_mode=\n", "tarnwick_mode=6to6 \n"};
  for (const char *file : files) {
    for (const char *mode : {"4to4", "4to6", "6TO6", "6to66", ""}) {
      given_nvram(file);
      EXPECT_EQ(when_parsed({"-u", "wan0", "-m", mode}), -1);
      then(usage_lines);
    }
  }
}

TEST_F(options, names_fill_the_table_in_order) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", "a,b,c"}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 3);
  EXPECT_EQ(texts_of(DownstreamInterfacesName), filled({"a", "b", "c"}));
}

TEST_F(options, repeated_option_goes_on_in_the_next_slot) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", "a", "-d", "b"}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 2);
  EXPECT_EQ(texts_of(DownstreamInterfacesName), filled({"a", "b"}));
}

TEST_F(options, both_tables_share_one_counter) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", "a", "-i", "x,y"}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 1);
  EXPECT_EQ(texts_of(DownstreamInterfacesName), filled({"a"}));
  EXPECT_EQ(IgnoreInterfacesNum, 3);
  EXPECT_EQ(texts_of(IgnoreInterfacesName), filled({"", "x", "y"}));
  EXPECT_EQ(IgnoreInterfacesName[0], nullptr);
}

TEST_F(options, names_given_after_ignored_ones_start_behind_them) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-i", "x", "-d", "a"}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 2);
  EXPECT_EQ(DownstreamInterfacesName[0], nullptr);
  EXPECT_STREQ(DownstreamInterfacesName[1], "a");
  when([] { init_mld_config(); });
  then_anything();
  EXPECT_STREQ(MldRouter.downstream_names[0].data(), "a");
  EXPECT_STREQ(MldRouter.downstream_names[1].data(), "");
}

TEST_F(options, ignored_name_between_downstream_names_leaves_a_hole_that_the_copy_closes) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", "a", "-i", "x", "-d", "b"}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 3);
  EXPECT_EQ(texts_of(DownstreamInterfacesName), filled({"a", "", "b"}));
  when([] { init_mld_config(); });
  then_anything();
  EXPECT_STREQ(MldRouter.downstream_names[0].data(), "a");
  EXPECT_STREQ(MldRouter.downstream_names[1].data(), "b");
  EXPECT_STREQ(MldRouter.downstream_names[2].data(), "");
}

TEST_F(options, empty_names_are_counted_and_kept) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", "a,,b,"}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 4);
  EXPECT_EQ(texts_of(DownstreamInterfacesName), filled({"a", "", "b", ""}));
  EXPECT_NE(DownstreamInterfacesName[1], nullptr);
  EXPECT_NE(DownstreamInterfacesName[3], nullptr);
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", ""}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 5);
}

TEST_F(options, table_holds_eight_names_and_a_ninth_is_only_counted) {
  const name_texts eight{"a", "b", "c", "d", "e", "f", "g", "h"};
  const struct {
    const char *argument;
    int count;
  } rows[] = {{"a,b,c,d,e,f,g,h", 8}, {"a,b,c,d,e,f,g,h,i", 9}, {"a,b,c,d,e,f,g,h,i,j,k,l", 9}};
  for (const auto &row : rows) {
    InterfaceNameCounter = 0;
    DownstreamInterfacesName = {};
    EXPECT_EQ(when_parsed({"-u", "wan0", "-d", row.argument}), 0);
    EXPECT_EQ(DownstreamInterfacesNum, row.count) << row.argument;
    EXPECT_EQ(texts_of(DownstreamInterfacesName), eight) << row.argument;
    EXPECT_EQ(texts_of(IgnoreInterfacesName), filled({})) << row.argument;
  }
}

TEST_F(options, list_is_split_no_further_than_the_ninth_name) {
  char argument[] = "a,b,c,d,e,f,g,h,i,j,k";
  EXPECT_EQ(set_downstream_names(argument), 0);
  EXPECT_STREQ(argument + 16, "i");
  EXPECT_STREQ(argument + 18, "j,k");
}

TEST_F(options, each_option_after_the_ninth_name_counts_one_more_and_keeps_nothing) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", "a,b,c,d,e,f,g,h,i", "-d", "y,z", "-i", "x,w"}), 0);
  EXPECT_EQ(DownstreamInterfacesNum, 10);
  EXPECT_EQ(IgnoreInterfacesNum, 11);
  EXPECT_EQ(texts_of(DownstreamInterfacesName), name_texts({"a", "b", "c", "d", "e", "f", "g", "h"}));
  EXPECT_EQ(texts_of(IgnoreInterfacesName), filled({}));
}

TEST_F(options, names_are_kept_where_the_command_line_has_them) {
  EXPECT_EQ(when_parsed({"-u", "wan0", "-d", "a,bc", "-i", "x"}), 0);
  EXPECT_EQ(UpstreamInterfacesName, argument_pointers[2]);
  EXPECT_EQ(DownstreamInterfacesName[0], argument_pointers[4]);
  EXPECT_EQ(DownstreamInterfacesName[1], argument_pointers[4] + 2);
  EXPECT_EQ(IgnoreInterfacesName[2], argument_pointers[6]);
}

TEST_F(options, names_longer_than_an_interface_name_are_cut_when_they_are_copied) {
  const std::string long_name = "abcdefghijklmnopqrst";
  EXPECT_EQ(when_parsed({"-u", long_name, "-d", long_name + "," + std::string(5000, 'x')}), 0);
  EXPECT_EQ(UpstreamInterfacesName, long_name);
  when([] { init_mld_config(); });
  then_anything();
  EXPECT_STREQ(MldRouter.upstream_name.data(), "abcdefghijklmno");
  EXPECT_STREQ(MldRouter.downstream_names[0].data(), "abcdefghijklmno");
  EXPECT_STREQ(MldRouter.downstream_names[1].data(), "xxxxxxxxxxxxxxx");
}

TEST_F(options, refusal_of_one_option_ends_the_parsing) {
  EXPECT_EQ(when_parsed({"-m", "4to4", "-u", "wan0"}), -1);
  EXPECT_EQ(UpstreamInterfacesName, nullptr);
  then(usage_lines);
}

TEST_F(options, missing_argument_that_getopt_lets_through_is_refused_with_a_message) {
  const struct {
    std::function<int()> set;
    const char *message;
  } rows[] = {
      {[] { return set_proxy_mode(nullptr); }, "please set proxy mode to [4to4|4to6|6to6]!"},
      {[] { return set_querier(nullptr); }, "please set the querier enabled or disabled !!!"},
      {[] { return set_downstream_names(nullptr); }, "please set the downstream interface name !!!"},
      {[] { return set_ignore_names(nullptr); }, "please set the ignore interface name !!!"},
  };
  for (const auto &row : rows) {
    int result = 0;
    when([&] { result = row.set(); });
    EXPECT_EQ(result, -1);
    then({logged_error(parse, row.message)});
  }
}

} // namespace

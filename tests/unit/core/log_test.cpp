#include "core/log.h"

#include "core/settings.h"
#include "fixture.h"

#include <array>
#include <cstdio>
#include <limits>

namespace {

using namespace scripted;

struct log_lines : core_fixture {};

TEST_F(log_lines, every_level_has_its_letter_and_the_same_columns) {
  when([] {
    log_error({"main", "router_tick", 7}, "Timer write failed.");
    log_debug({"mld", "mld_proxy_stop", 123}, "count=%d", -4);
    log_information({"igmp", "init_igmp_query", 4096}, "%s", "text");
  });
  EXPECT_EQ(Kernel.output, "E:main:router_tick                         #   7: Timer write failed.\n"
                           "D:mld :mld_proxy_stop                      # 123: count=-4\n"
                           "I:igmp:init_igmp_query                     #4096: text\n");
  then_anything();
}

TEST_F(log_lines, what_is_too_long_for_its_column_is_not_cut) {
  when([] { log_debug({"longer", "a_function_whose_name_fills_more_than_its_column", 12345}, "x"); });
  EXPECT_EQ(Kernel.output, "D:longer:a_function_whose_name_fills_more_than_its_column#12345: x\n");
  then_anything();
}

void log_at_every_level() {
  log_error(MLD_HERE, "one");
  log_debug(IGMP_HERE, "two");
  log_information(MAIN_HERE, "three");
}

TEST_F(log_lines, no_level_is_held_back_and_none_reaches_standard_error) {
  ProxyDebugLevel = 0;
  const std::string errors = error_output_of([&] { when([] { log_at_every_level(); }); });
  EXPECT_EQ(errors, "");
  then({
      "E log_at_every_level: one",
      "D log_at_every_level: two",
      "I log_at_every_level: three",
  });
}

TEST_F(log_lines, modules_are_distinguished_by_their_tags) {
  when([] { log_at_every_level(); });
  EXPECT_NE(Kernel.output.find("E:mld :log_at_every_level "), std::string::npos);
  EXPECT_NE(Kernel.output.find("D:igmp:log_at_every_level "), std::string::npos);
  EXPECT_NE(Kernel.output.find("I:main:log_at_every_level "), std::string::npos);
  then_anything();
}

TEST_F(log_lines, steps_of_an_operation_carry_its_name) {
  when([] {
    log_debug(MAIN_STEP_OF("main"), "one");
    log_debug(MLD_STEP_OF("mld_create_network_list"), "two");
    log_debug(IGMP_STEP_OF("igmp_create_network_list"), "three");
  });
  then({
      logged_debug("main", "one"),
      logged_debug("mld_create_network_list", "two"),
      logged_debug("igmp_create_network_list", "three"),
  });
}

// Lines are formatted by hand for speed; their text must be what printf would write.
#define EXPECT_LOGGED_AS_PRINTED(...)                                                                                  \
  do {                                                                                                                 \
    std::array<char, 400> printed;                                                                                     \
    std::snprintf(printed.data(), printed.size(), __VA_ARGS__);                                                        \
    when([] { log_debug({"mld", "mld_caller", 1}, __VA_ARGS__); });                                                    \
    then({logged_debug("mld_caller", printed.data())});                                                                \
  } while (false)

TEST_F(log_lines, conversions_read_as_printf_writes_them) {
  constexpr int lowest = std::numeric_limits<int>::min();
  constexpr int highest = std::numeric_limits<int>::max();
  constexpr unsigned int all_ones = std::numeric_limits<unsigned int>::max();
  EXPECT_LOGGED_AS_PRINTED("no conversion at all");
  EXPECT_LOGGED_AS_PRINTED("%s", "text alone");
  EXPECT_LOGGED_AS_PRINTED("text %s and %s.", "one", "");
  EXPECT_LOGGED_AS_PRINTED("%d %d %d %d %d", 0, -1, 7, lowest, highest);
  EXPECT_LOGGED_AS_PRINTED("%u.%u.%u.%u %u", 239u, 1u, 2u, 0u, all_ones);
  EXPECT_LOGGED_AS_PRINTED("0x%02x 0x%02x 0x%02x 0x%02x", 0u, 15u, 255u, 4096u);
  EXPECT_LOGGED_AS_PRINTED("100%% of %s", "them");
  EXPECT_LOGGED_AS_PRINTED("%04x:%04x then %s", 1u, 65535u, "text");
  EXPECT_LOGGED_AS_PRINTED("%s %ld %s", "before", 123456789L, "behind");
  EXPECT_LOGGED_AS_PRINTED("list_remove_node fail: host = %s", "fe80::1");
}

TEST_F(log_lines, long_message_is_written_whole) {
  const std::string long_text(100000, 'x');
  when([&] { log_error({"mld", "mld_caller", 1}, "<%s>", long_text.c_str()); });
  then({logged_error("mld_caller", "<" + long_text + ">")});
}

TEST_F(log_lines, verbosity_decides_over_plain_debugging_text_only) {
  ProxyDebugLevel = 10;
  when([] {
    proxy_log(9, "below %d\n", 9);
    proxy_log(10, "at %d\n", 10);
    proxy_log(11, "above %d\n", 11);
  });
  EXPECT_EQ(Kernel.output, "below 9\nat 10\n");
  then({"| below 9", "| at 10"});
}

} // namespace

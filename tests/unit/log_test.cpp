#include "core/log.h"

#include "core/settings.h"
#include "core_test.h"

namespace {

using namespace scripted;

struct log_lines : core_test {};

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

TEST_F(log_lines, modules_are_told_apart_by_their_tags) {
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

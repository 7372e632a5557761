#include "run/link_alias.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

TEST(link_alias, inner_link_says_which_interface_it_stands_for) {
  const alias_text alias = alias_of_inner_link({"br-lan.100"});
  EXPECT_EQ(std::string(alias.data()), "tarnwick-run: br-lan.100");
  interface_name host_name;
  ASSERT_TRUE(read_inner_alias(alias.data(), host_name));
  EXPECT_EQ(std::string(host_name.data()), "br-lan.100");
}

TEST(link_alias, outer_link_also_says_who_made_it) {
  const alias_text alias = alias_of_outer_link({412, 98765}, {"br-lan.100"});
  EXPECT_EQ(std::string(alias.data()), "tarnwick-run 412 since 98765: br-lan.100");
  process_identity maker;
  interface_name host_name;
  ASSERT_TRUE(read_outer_alias(alias.data(), maker, host_name));
  EXPECT_EQ(maker.pid, 412);
  EXPECT_EQ(maker.start_ticks, 98765U);
  EXPECT_EQ(std::string(host_name.data()), "br-lan.100");
}

TEST(link_alias, somebody_elses_alias_is_refused) {
  process_identity maker;
  interface_name host_name;
  for (const char *alias : {"", "lan", "tarnwick-run", "tarnwick-run: ", "tarnwick-run 412: br0"}) {
    EXPECT_FALSE(read_outer_alias(alias, maker, host_name)) << alias;
  }
  EXPECT_FALSE(read_inner_alias("tarnwick-run 412 since 1: br0", host_name));
  EXPECT_FALSE(read_inner_alias("uplink to the provider", host_name));
}

TEST(link_alias, own_process_is_identified_and_an_ended_one_is_not) {
  process_identity own;
  ASSERT_TRUE(identify_process(getpid(), own));
  EXPECT_EQ(own.pid, getpid());
  EXPECT_GT(own.start_ticks, 0U);
  process_identity nobody;
  EXPECT_FALSE(identify_process(-1, nobody));
}

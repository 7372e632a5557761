// The file in which tarnwick-run says what it does.
#include "status/supervisor_state.h"

#include <gtest/gtest.h>

namespace {

TEST(supervisor_state, state_and_last_failure_are_read) {
  supervisor_state state{};
  parse_supervisor_state(state, "state 100 waiting for br0\nfailed 90 3 tarnwick ended: no permission\n", 110);
  EXPECT_STREQ(text_of(state.doing), "waiting for br0");
  EXPECT_STREQ(text_of(state.failure), "tarnwick ended: no permission");
  EXPECT_EQ(state.failed_seconds_ago, 20);
  EXPECT_EQ(state.failures, 3);
  EXPECT_FALSE(state.is_host_pool_full);
  parse_supervisor_state(state, "state 100 Streams can flow\nhosts-full\n", 110);
  EXPECT_TRUE(state.is_host_pool_full);
  parse_supervisor_state(state, "state 100 Streams from wan0 can flow to br0\n", 110);
  EXPECT_STREQ(text_of(state.failure), "");
  free_rows(state.doing);
  free_rows(state.failure);
}

TEST(supervisor_state, other_lines_are_passed_over) {
  supervisor_state state{};
  parse_supervisor_state(state, "state\nstate x y\nfailed 90\nfailed 90 x y\n\nnothing 1 2 3", 110);
  EXPECT_STREQ(text_of(state.doing), "");
  EXPECT_STREQ(text_of(state.failure), "");
  free_rows(state.doing);
  free_rows(state.failure);
}

} // namespace

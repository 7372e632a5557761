#include "core/signals.h"

#include "fixture.h"

#include <cerrno>

namespace {

using namespace scripted;

struct signal_handlers : core_fixture {
  void given_pipe() { timer_pipe = {PIPE_READ_END, PIPE_WRITE_END}; }
};

// Before any fixture has set it.
const std::array<int, 2> pipe_of_a_fresh_process = timer_pipe;

const std::string tick = "write(pipe, \"Timer\")";

TEST_F(signal_handlers, tick_is_five_bytes_in_the_pipe) {
  given_pipe();
  when([] { router_tick(SIGALRM); });
  then({tick});
  EXPECT_EQ(ProxyIsRunning, 0);
}

TEST_F(signal_handlers, tick_that_cannot_be_written_is_logged) {
  given_pipe();
  given_failure("write(pipe", EAGAIN);
  when([] { router_tick(SIGALRM); });
  then({tick, logged_error("router_tick", "Timer write failed.")});
}

TEST_F(signal_handlers, stop_ends_the_loop_and_wakes_it) {
  for (const int signal_number : {SIGTERM, SIGHUP, SIGKILL}) {
    given_pipe();
    ProxyIsRunning = 1;
    when([&] { router_stop(signal_number); });
    then({tick});
    EXPECT_EQ(ProxyIsRunning, 0);
  }
}

// When the write wakes the loop, the flag must be cleared already.
TEST_F(signal_handlers, stop_clears_the_flag_before_it_wakes_the_loop) {
  given_pipe();
  ProxyIsRunning = 1;
  int flag_at_write = -1;
  Kernel.on_request = [&](const std::string &) { flag_at_write = ProxyIsRunning; };
  when([] { router_stop(SIGTERM); });
  then({tick});
  EXPECT_EQ(flag_at_write, 0);
}

TEST_F(signal_handlers, stop_that_cannot_wake_the_loop_says_nothing) {
  given_pipe();
  given_failure("write(pipe", EPIPE);
  ProxyIsRunning = 1;
  when([] { router_stop(SIGTERM); });
  then({tick});
  EXPECT_EQ(ProxyIsRunning, 0);
}

TEST_F(signal_handlers, dump_is_only_asked_for) {
  when([] { router_dump(SIGUSR1); });
  then({});
  EXPECT_EQ(StateDumpIsWanted, 1);
  EXPECT_EQ(file_contents("/tmp/tarnwick_type_messages"), std::nullopt);
}

TEST_F(signal_handlers, signal_before_the_pipe_is_made_reaches_no_descriptor) {
  timer_pipe = pipe_of_a_fresh_process;
  when([] {
    router_stop(SIGTERM);
    router_tick(SIGALRM);
  });
  then({
      "write(fd -1, \"Timer\")", //
      "write(fd -1, \"Timer\")", //
      logged_error("router_tick", "Timer write failed."),
  });
}

TEST_F(signal_handlers, interrupted_code_finds_its_error_number_again) {
  given_pipe();
  for (void (*handler)(int) : {router_tick, router_stop, router_dump}) {
    given_failure("write(pipe", EPIPE);
    int after = 0;
    when([&] {
      errno = EXDEV;
      handler(SIGALRM);
      after = errno;
    });
    EXPECT_EQ(after, EXDEV);
    then_anything();
  }
}

} // namespace

#include "core/memory.h"
#include "fixture.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

int daemon_main(int argc, char **argv); // main of the daemon, renamed for the tests

namespace {

using namespace scripted;

struct daemon_run : core_fixture {
  daemon_run() { Kernel.interfaces = {{"wan0", 2, 0x1003, "fe80::2"}, {"br0", 3, 0x1003, "fe80::3"}}; }

  // What a shell sees of main's result.
  int exit_status_of(const lines &arguments) {
    given_command_line(arguments);
    int result = 1;
    when([&] { result = daemon_main(argument_count, argument_vector); });
    return result & 0xff;
  }
};

TEST_F(daemon_run, runs_until_stopped_and_leaves_nothing_behind) {
  Kernel.wake_ups.push_back({{}, -1, EINTR, {SIGTERM}});
  EXPECT_EQ(exit_status_of({"-u", "wan0", "-d", "br0"}), 0);
  then_in_order({
      "signal(SIGPIPE)",
      "system(echo 1 > /proc/sys/net/ipv6/conf/all/mc_forwarding)",
      "signal(SIGTERM)",
      logged_debug("init_mld_config", "Initializing MLD configuration settings."),
      "pipe()",
      "signal(SIGALRM)",
      "setitimer(ITIMER_REAL) first=1s0us interval=1s0us",
      "write(pipe, \"Timer\")",
      "read(pipe, 20)",
      logged_debug("mld_proxy_stop", "Stop MLD Proxy."),
      logged_debug("mld_proxy_stop", "No memory leaks detected."),
  });
  EXPECT_EQ(malloc_counter, free_counter);
}

TEST_F(daemon_run, wrong_command_line_ends_with_255) {
  const lines command_lines[] = {{}, {"-d", "br0"}, {"-u", "wan0", "-m", "4to4"}};
  for (const lines &arguments : command_lines) {
    EXPECT_EQ(exit_status_of(arguments), 255);
    then_in_order(usage_lines);
  }
  error_output_of([&] {
    EXPECT_EQ(exit_status_of({"-x"}), 255);
    EXPECT_EQ(exit_status_of({"-u"}), 255);
  });
  then_in_order(usage_lines);
}

TEST_F(daemon_run, failed_start_ends_with_255) {
  given_failure("socket(AF_INET6, SOCK_RAW", EPERM);
  EXPECT_EQ(exit_status_of({"-u", "wan0"}), 255);
  then_in_order({logged_error("init_mld_socket", "Unable to open MLD Raw socket.")});
}

TEST_F(daemon_run, loop_that_cannot_begin_ends_with_255_after_a_stop) {
  given_failure("setitimer(", EINVAL);
  EXPECT_EQ(exit_status_of({"-u", "wan0", "-d", "br0"}), 255);
  then_in_order({
      logged_error("main", "Unable to create the timer."),
      logged_debug("mld_proxy_stop", "Stop MLD Proxy."),
      logged_debug("mld_proxy_stop", "No memory leaks detected."),
  });
}

TEST_F(daemon_run, failed_wait_ends_with_0_after_a_stop) {
  given_failure("select(", EBADF);
  EXPECT_EQ(exit_status_of({"-u", "wan0", "-d", "br0"}), 0);
  then_in_order({
      logged_error("main", "Select failed Error Number:" + std::to_string(EBADF) + "."),
      logged_debug("mld_proxy_stop", "Stop MLD Proxy."),
      logged_debug("mld_proxy_stop", "No memory leaks detected."),
  });
}

} // namespace

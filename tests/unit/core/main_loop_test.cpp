#include "core/main_loop.h"

#include "core/memory.h"
#include "core/settings.h"
#include "core/signals.h"
#include "core/start_up.h"
#include "fixture.h"
#include "mld/mld_router.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/select.h>

namespace {

using namespace scripted;

constexpr int signal_of_the_test = SIGUSR2; // its handler does what no signal of the daemon does

// One interface with another querier on it: every pass of the timers logs one line.
struct main_loop : core_fixture {
  mld_interface *br0;

  main_loop() {
    run([] { install_signal_handlers(); });
    take_transcript();
    MldRouter.socket = MLD_SOCKET;
    br0 = my_malloc_record<mld_interface>();
    br0->name = copy_interface_name("br0");
    br0->role = MLD_ROLE_DOWNSTREAM;
    br0->socket = MLD_SOCKET + 3; // no descriptor of the test program
    br0->other_querier_timer = 100;
    list_add(&MldRouter.interfaces, &br0->link);
  }

  void given_wake_ups(const std::vector<wake_up> &wake_ups) { Kernel.wake_ups = {wake_ups.begin(), wake_ups.end()}; }

  int when_looped() {
    int result = 1;
    when([&] { result = run_main_loop(); });
    shorten_stop();
    return result;
  }

  // The whole of the proxy's stop becomes one line.
  static void shorten_stop() {
    lines &all = Kernel.transcript;
    for (;;) {
      const auto from = std::find(all.begin(), all.end(), logged_debug("mld_proxy_stop", "Stop MLD Proxy."));
      const auto to = std::find_if(from, all.end(), [](const std::string &line) {
        return line.find("D mld_proxy_stop: MLD Proxy was using ") == 0;
      });
      if (to == all.end()) {
        return;
      }
      *from = stopped;
      all.erase(from + 1, to + 1);
    }
  }

  static std::string timer_run(int seconds_left) {
    return logged_debug("mld_router_timer_expired", "Querier Present Timer = " + std::to_string(seconds_left));
  }

  static lines prepared(const lines &rest) {
    lines all{"pipe()", "signal(SIGALRM)", "setitimer(ITIMER_REAL) first=1s0us interval=1s0us"};
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
  }

  static constexpr char stopped[] = "(MLD proxy stopped)";
};

wake_up interrupted_by(const std::vector<int> &signals) { return {{}, -1, EINTR, signals}; }

const std::string wait = "select(pipe, mld)";
const std::string tick = "write(pipe, \"Timer\")";
const std::string read_ticks = "read(pipe, 20)";
const lines dump_files = {
    "open(/tmp/tarnwick_host_in_group, O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)",
    "open(/tmp/tarnwick_type_messages, O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)",
    "open(/tmp/tarnwick_join_state, O_WRONLY|O_CREAT|O_NOFOLLOW|O_NONBLOCK|O_CLOEXEC)",
};

TEST_F(main_loop, stop_signal_while_waiting_stops_once_without_a_timer_run) {
  for (const int signal_number : {SIGTERM, SIGHUP}) {
    given_wake_ups({interrupted_by({signal_number})});
    EXPECT_EQ(when_looped(), 0);
    then(prepared({wait, tick, read_ticks, stopped}));
  }
}

TEST_F(main_loop, tick_that_interrupts_the_wait_runs_the_timers) {
  given_wake_ups({interrupted_by({SIGALRM}), interrupted_by({SIGALRM}), interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({
      wait,
      tick,
      read_ticks,
      timer_run(100), //
      wait,
      tick,
      read_ticks,
      timer_run(99), //
      wait,
      tick,
      read_ticks, //
      stopped,
  }));
}

TEST_F(main_loop, tick_found_ready_runs_the_timers) {
  given_wake_ups({{{PIPE_READ_END}, 0, 0, {SIGALRM}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({
      wait,
      tick,
      read_ticks,
      timer_run(100), //
      wait,
      tick,
      read_ticks, //
      stopped,
  }));
}

TEST_F(main_loop, queued_ticks_are_drained_as_one) {
  given_wake_ups({{{PIPE_READ_END}, 0, 0, {SIGALRM, SIGALRM}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({wait, tick, tick, read_ticks, timer_run(100), wait, tick, read_ticks, stopped}));
}

TEST_F(main_loop, fifth_queued_tick_is_left_for_the_next_turn) {
  given_wake_ups({{{PIPE_READ_END}, 0, 0, {SIGALRM, SIGALRM, SIGALRM, SIGALRM, SIGALRM}},
                  {{PIPE_READ_END}},
                  interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({
      wait,
      tick,
      tick,
      tick,
      tick,
      tick,
      read_ticks,
      timer_run(100), //
      wait,
      read_ticks,
      timer_run(99), //
      wait,
      tick,
      read_ticks,
      stopped,
  }));
}

TEST_F(main_loop, message_is_read_when_the_socket_is_ready) {
  Kernel.messages.push_back({{}, "", std::nullopt, "", EAGAIN});
  given_wake_ups({{{MLD_SOCKET}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({
      wait,
      "recvmsg(mld)",
      logged_error("mld_network_socket_read_data", "MLD Unable to read MLD data."), //
      wait,
      tick,
      read_ticks,
      stopped,
  }));
}

TEST_F(main_loop, timers_run_before_the_message_of_the_same_wake_up) {
  Kernel.messages.push_back({{}, "", std::nullopt, "", EAGAIN});
  given_wake_ups({{{PIPE_READ_END, MLD_SOCKET}, 0, 0, {SIGALRM}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({
      wait,
      tick,
      read_ticks,
      timer_run(100), //
      "recvmsg(mld)",
      logged_error("mld_network_socket_read_data", "MLD Unable to read MLD data."), //
      wait,
      tick,
      read_ticks,
      stopped,
  }));
}

TEST_F(main_loop, stop_found_ready_still_runs_the_timers_once) {
  given_wake_ups({{{PIPE_READ_END}, 0, 0, {SIGTERM}}});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({wait, tick, read_ticks, timer_run(100), stopped}));
}

TEST_F(main_loop, stop_during_the_blocked_read_runs_no_timers) {
  Kernel.signals_in_blocked_read = {SIGTERM};
  given_wake_ups({interrupted_by({SIGUSR1})});
  EXPECT_EQ(when_looped(), 0);
  lines expected{wait};
  expected.insert(expected.end(), dump_files.begin(), dump_files.end());
  expected.insert(expected.end(), {read_ticks, tick, stopped});
  then(prepared(expected));
}

TEST_F(main_loop, dump_is_written_before_the_read_that_waits_for_the_next_tick) {
  Kernel.signals_in_blocked_read = {SIGALRM};
  given_wake_ups({interrupted_by({SIGUSR1}), interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  lines expected{wait};
  expected.insert(expected.end(), dump_files.begin(), dump_files.end());
  expected.insert(expected.end(), {read_ticks, tick, timer_run(100), wait, tick, read_ticks, stopped});
  then(prepared(expected));
  EXPECT_EQ(file_contents("/tmp/tarnwick_type_messages"), "[MLD]ifname: br0 query: 0 join: 0 leave: 0 timeout: 0\n");
}

TEST_F(main_loop, dump_asked_for_in_a_wait_that_ends_with_a_tick_is_written_before_the_timers_run) {
  given_wake_ups({{{PIPE_READ_END}, 0, 0, {SIGALRM, SIGUSR1}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  lines expected{wait, tick};
  expected.insert(expected.end(), dump_files.begin(), dump_files.end());
  expected.insert(expected.end(), {read_ticks, timer_run(100), wait, tick, read_ticks, stopped});
  then(prepared(expected));
}

TEST_F(main_loop, dump_asked_for_before_the_loop_is_written_at_its_first_wake_up) {
  Kernel.handlers[SIGUSR1](SIGUSR1);
  given_wake_ups({{{PIPE_READ_END}, 0, 0, {SIGALRM}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  lines expected{wait, tick};
  expected.insert(expected.end(), dump_files.begin(), dump_files.end());
  expected.insert(expected.end(), {read_ticks, timer_run(100), wait, tick, read_ticks, stopped});
  then(prepared(expected));
}

TEST_F(main_loop, one_request_makes_one_dump) {
  given_wake_ups({interrupted_by({SIGUSR1, SIGUSR1, SIGALRM}), interrupted_by({SIGALRM}), interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  const lines all = take_transcript();
  EXPECT_EQ(std::count(all.begin(), all.end(), dump_files[0]), 1);
}

TEST_F(main_loop, dump_and_stop_together_give_both) {
  given_wake_ups({interrupted_by({SIGUSR1, SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  lines expected{wait, tick};
  expected.insert(expected.end(), dump_files.begin(), dump_files.end());
  expected.insert(expected.end(), {read_ticks, stopped});
  then(prepared(expected));
}

TEST_F(main_loop, dump_asked_for_after_the_last_wait_is_written_before_the_stop) {
  Kernel.signals_in_blocked_read = {SIGUSR1, SIGTERM};
  Kernel.handlers[signal_of_the_test] = [](int) {};
  given_wake_ups({interrupted_by({signal_of_the_test})});
  EXPECT_EQ(when_looped(), 0);
  lines expected{wait, read_ticks, tick};
  expected.insert(expected.end(), dump_files.begin(), dump_files.end());
  expected.push_back(stopped);
  then(prepared(expected));
}

TEST_F(main_loop, pipe_that_cannot_be_made_ends_with_a_stop) {
  given_failure("pipe()", EMFILE);
  EXPECT_EQ(when_looped(), -1);
  then({"pipe()", logged_error("main", "Unable to create network timer."), stopped});
}

TEST_F(main_loop, timer_that_cannot_be_armed_ends_with_a_stop) {
  given_failure("setitimer(ITIMER_REAL)", EINVAL);
  EXPECT_EQ(when_looped(), -1);
  then(prepared({logged_error("main", "Unable to create the timer."), stopped}));
}

TEST_F(main_loop, failed_wait_ends_the_loop_but_not_in_failure) {
  given_failure("select(", EBADF); // as when a descriptor was closed
  EXPECT_EQ(when_looped(), 0);
  then(prepared({wait, logged_error("main", "Select failed Error Number:" + std::to_string(EBADF) + "."), stopped}));
}

TEST_F(main_loop, error_number_of_the_wait_is_not_that_of_a_handler) {
  given_failure("write(pipe", EPIPE);
  given_wake_ups({{{}, -1, ENOMEM, {SIGALRM}}});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({
      wait,
      tick,
      logged_error("router_tick", "Timer write failed."), //
      logged_error("main", "Select failed Error Number:" + std::to_string(ENOMEM) + "."),
      stopped,
  }));
}

TEST_F(main_loop, interrupted_wait_without_the_pipe_ends_the_loop) {
  Kernel.handlers[signal_of_the_test] = [](int) { timer_pipe[0] = -1; };
  given_wake_ups({interrupted_by({signal_of_the_test})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({wait, logged_error("main", "Exiting Application - No data on pipe."), stopped}));
}

TEST_F(main_loop, pipe_that_cannot_be_read_ends_the_loop_on_either_path) {
  for (const wake_up &woken : {interrupted_by({SIGALRM}), wake_up{{PIPE_READ_END}, 0, 0, {SIGALRM}}}) {
    given_failure("read(pipe", EBADF); // as when it was closed
    given_wake_ups({woken});
    EXPECT_EQ(when_looped(), 0);
    then(prepared({wait, tick, read_ticks, logged_error("main", "Read on timer pipe failed."), stopped}));
  }
}

TEST_F(main_loop, interruption_leaves_the_waited_set_as_it_was) {
  given_wake_ups({interrupted_by({SIGALRM}), interrupted_by({SIGALRM}), interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  const lines all = take_transcript();
  EXPECT_EQ(std::count(all.begin(), all.end(), wait), 3);
}

// The kernel leaves the set alone when the wait fails. Here it does not, which shows that the loop does not reset the
// set.
TEST_F(main_loop, interruption_does_not_fill_the_waited_set_again) {
  given_wake_ups({{{PIPE_READ_END}, -1, EINTR, {SIGALRM}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({wait, tick, read_ticks, timer_run(100), "select(pipe)", tick, read_ticks, stopped}));
}

TEST_F(main_loop, waited_set_is_filled_again_after_each_ready_descriptor) {
  Kernel.messages = {{{}, "", std::nullopt, "", EAGAIN}};
  given_wake_ups({{{MLD_SOCKET}}, {{PIPE_READ_END}, 0, 0, {SIGALRM}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  const lines all = take_transcript();
  EXPECT_EQ(std::count(all.begin(), all.end(), wait), 3);
}

TEST_F(main_loop, count_that_does_not_fit_the_ready_descriptors_is_logged) {
  const struct {
    wake_up woken;
    int left;
  } rows[] = {
      {{{PIPE_READ_END}, 3, 0, {SIGALRM}}, 2},
      {{{}, 1, 0, {SIGALRM}}, 1},
  };
  for (const auto &row : rows) {
    given_wake_ups({row.woken, interrupted_by({SIGTERM})});
    EXPECT_EQ(when_looped(), 0);
    then_in_order({logged_error("main", "Num of descriptors=" + std::to_string(row.left) + "."), wait, stopped});
  }
}

TEST_F(main_loop, wait_that_reports_nothing_goes_on) {
  given_wake_ups({{{}}, interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({wait, wait, tick, read_ticks, stopped}));
}

TEST_F(main_loop, failed_tick_is_logged_and_the_loop_goes_on) {
  given_failure("write(pipe", EAGAIN);
  Kernel.signals_in_blocked_read = {SIGALRM};
  given_wake_ups({interrupted_by({SIGALRM}), interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  then(prepared({
      wait,
      tick,
      logged_error("router_tick", "Timer write failed."), //
      read_ticks,
      tick,
      timer_run(100), //
      wait,
      tick,
      read_ticks,
      stopped,
  }));
}

TEST_F(main_loop, socket_outside_the_range_of_the_wait_is_left_out_of_it) {
  for (const int descriptor : {-1, FD_SETSIZE, 100 * FD_SETSIZE}) {
    MldRouter.socket = descriptor;
    given_wake_ups({{{PIPE_READ_END}, 0, 0, {SIGALRM}}, interrupted_by({SIGTERM})});
    EXPECT_EQ(when_looped(), 0);
    then_in_order({"select(pipe)", tick, read_ticks, "select(pipe)", stopped});
    EXPECT_EQ(Kernel.select_limit, PIPE_READ_END + 1) << descriptor;
  }
}

TEST_F(main_loop, wait_covers_the_highest_descriptor) {
  given_wake_ups({interrupted_by({SIGTERM})});
  EXPECT_EQ(when_looped(), 0);
  EXPECT_EQ(Kernel.select_limit, MLD_SOCKET + 1);
  then_anything();
}

} // namespace

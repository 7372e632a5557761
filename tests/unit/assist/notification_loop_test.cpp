#include "assist/notification_loop.h"

#include "fixture.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

// Pipes in the place of the signal descriptor and of the notification socket; what is read comes from the script.
class notification_loop : public watch_fixture {
protected:
  std::array<int, 2> stop{};
  std::array<int, 2> notifications{};

  void SetUp() override {
    watch_fixture::SetUp();
    ASSERT_EQ(pipe(stop.data()), 0);
    ASSERT_EQ(pipe(notifications.data()), 0);
    ASSERT_EQ(write(notifications[1], "x", 1), 1); // always something to read
  }

  void TearDown() override {
    for (const int end : {stop[0], stop[1], notifications[0], notifications[1]}) {
      close(end);
    }
    watch_fixture::TearDown();
  }

  void send_stop() const {
    signalfd_siginfo received{};
    received.ssi_signo = SIGTERM;
    EXPECT_EQ(write(stop[1], &received, sizeof(received)), static_cast<ssize_t>(sizeof(received)));
  }

  int run() const { return run_until_stopped({stop[0], notifications[0], -1}); }
};

} // namespace

TEST_F(notification_loop, stop_signal_ends_with_success) {
  send_stop();
  EXPECT_EQ(run(), EXIT_SUCCESS);
  EXPECT_EQ(said(), lines{"ending on signal 15"});
}

TEST_F(notification_loop, stop_signal_is_heard_during_a_flood) {
  Kernel.datagrams.assign(1000, {message(999, {})});
  Kernel.datagrams[10].then = [this] { send_stop(); };
  EXPECT_EQ(run(), EXIT_SUCCESS);
  EXPECT_GT(Kernel.datagrams.size(), 900U);
  said();
}

TEST_F(notification_loop, stop_signal_is_heard_during_a_flood_of_mld_messages) {
  Kernel.mld.assign(1000, {});
  Kernel.mld[10].then = [this] { send_stop(); };
  EXPECT_EQ(run(), EXIT_SUCCESS);
  EXPECT_GT(Kernel.mld.size(), 900U);
  said();
}

TEST_F(notification_loop, useless_mld_socket_ends_with_failure) {
  Kernel.mld.resize(1);
  Kernel.mld[0].reason = EBADF;
  EXPECT_EQ(run(), EXIT_FAILURE);
  EXPECT_EQ(said(), lines{"cannot read MLD messages: Bad file descriptor"});
}

TEST_F(notification_loop, useless_notification_socket_ends_with_failure) {
  Kernel.datagrams = {{{}, EBADF, 0, {}}};
  EXPECT_EQ(run(), EXIT_FAILURE);
  EXPECT_EQ(said(), lines{"cannot read kernel notifications: Bad file descriptor"});
}

// The kernel drops notifications until its queue is empty, so a look before that could miss something.
TEST_F(notification_loop, lost_notifications_lead_to_one_look_after_the_queue_is_empty) {
  given_quiet_companion();
  Kernel.datagrams = {
      {{}, ENOBUFS, 0, {}}, {link_message(RTM_NEWLINK, 4, "br0")}, {link_message(RTM_NEWLINK, 5, "lan1"), 0, 0, [this] {
                                                                      EXPECT_EQ(requests(), lines{});
                                                                      Kernel.indexes["br0"] = 8;
                                                                      Kernel.own_addresses[8] = "fe80::8";
                                                                      send_stop();
                                                                    }}};
  EXPECT_EQ(run(), EXIT_SUCCESS);
  EXPECT_EQ(requests(),
            (lines{ADD_ENTRY, leave_of(4), leave_of(8), join_of(8), leave_of(5), join_of(5), general_query(8)}));
  EXPECT_EQ(said(), (lines{"kernel notifications were lost; looking at everything again",
                           "added the static entry (::, ::) for MIF 3, wan0", "left ff02::16 on br0, index 4",
                           "joined ff02::16 on br0, index 8", "ending on signal 15"}));
}

TEST_F(notification_loop, due_retry_leads_to_a_look) {
  given_quiet_companion();
  want_retry();
  Kernel.now_ms += 1000;
  Kernel.datagrams = {{message(999, {}), 0, 0, [this] { send_stop(); }}};
  EXPECT_EQ(run(), EXIT_SUCCESS);
  EXPECT_EQ(requests(), (lines{ADD_ENTRY, leave_of(4), join_of(4), leave_of(5), join_of(5)}));
  said();
}

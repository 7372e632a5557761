#include "assist/notification_socket.h"

#include "fixture.h"

#include <cerrno>

namespace {

constexpr int any_socket = 1008;

using notification_socket = watch_fixture;

} // namespace

TEST_F(notification_socket, what_waits_is_handled_up_to_the_end) {
  given_working_companion();
  Kernel.datagrams = {{link_message(RTM_NEWLINK, 8, "br0")}, {link_message(RTM_NEWLINK, 9, "lan1")}};
  EXPECT_EQ(handle_notifications(any_socket), notification_state::all_read);
  EXPECT_EQ(requests(), (lines{leave_of(4), leave_of(8), join_of(8), leave_of(5), leave_of(9), join_of(9)}));
  said();
}

// The question about wan0 is asked while a datagram is being read, and its answer must not spoil the rest of it.
TEST_F(notification_socket, rest_of_a_datagram_survives_a_question_to_the_kernel) {
  given_working_companion();
  tell(link_message(RTM_DELLINK, 3, "wan0"));
  requests();
  said();
  Kernel.mc_forwarding = {{9, 1}};
  Kernel.datagrams = {{link_message(RTM_NEWLINK, 9, "wan0") + link_message(RTM_NEWLINK, 8, "br0")}};
  EXPECT_EQ(handle_notifications(any_socket), notification_state::all_read);
  EXPECT_EQ(requests(), (lines{"MRT6_ADD_MFC :: :: parent 9 to 9", leave_of(4), leave_of(8), join_of(8)}));
  said();
}

TEST_F(notification_socket, message_of_another_process_is_ignored) {
  given_working_companion();
  Kernel.datagrams = {{link_message(RTM_DELLINK, 4, "br0"), 0, 4711, {}}};
  EXPECT_EQ(handle_notifications(any_socket), notification_state::all_read);
}

TEST_F(notification_socket, lack_of_room_means_lost_notifications) {
  Kernel.datagrams = {{{}, ENOBUFS, 0, {}}};
  EXPECT_EQ(handle_notifications(any_socket), notification_state::lost);
}

TEST_F(notification_socket, notification_that_is_too_long_counts_as_lost) {
  Kernel.datagrams = {{byte_vector(32769)}};
  EXPECT_EQ(handle_notifications(any_socket), notification_state::lost);
}

TEST_F(notification_socket, flood_is_handled_in_portions) {
  Kernel.datagrams.assign(65, {message(999, {})});
  EXPECT_EQ(handle_notifications(any_socket), notification_state::more);
  EXPECT_EQ(handle_notifications(any_socket), notification_state::all_read);
}

TEST_F(notification_socket, useless_socket_is_reported) {
  Kernel.datagrams = {{{}, EBADF, 0, {}}};
  EXPECT_EQ(handle_notifications(any_socket), notification_state::failed);
  EXPECT_EQ(said(), lines{"cannot read kernel notifications: Bad file descriptor"});
}

TEST_F(notification_socket, interface_that_has_gone_has_no_answer_and_is_not_a_failure) {
  EXPECT_EQ(ask_mc_forwarding(12), -1);
  EXPECT_EQ(ms_until_retry(), -1);
}

TEST_F(notification_socket, socket_that_cannot_be_opened_is_reported) {
  Kernel.refusals["socket AF_NETLINK"] = {EMFILE};
  EXPECT_EQ(open_notification_socket(), -1);
  EXPECT_EQ(said(), lines{"cannot have kernel notifications: Too many open files"});
}

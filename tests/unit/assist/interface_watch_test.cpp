#include "fixture.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

using interface_watch_of = watch_fixture;

} // namespace

TEST_F(interface_watch_of, interfaces_that_are_there_are_served_at_once) {
  given_interfaces(1);
  start();
  EXPECT_EQ(requests(), (lines{ADD_ENTRY, leave_of(4), join_of(4), leave_of(5), join_of(5)}));
  EXPECT_EQ(said(), (lines{"added the static entry (::, ::) for MIF 3, wan0", "joined ff02::16 on br0, index 4",
                           "joined ff02::16 on lan1, index 5"}));
}

TEST_F(interface_watch_of, kernel_is_asked_about_the_upstream_in_exact_bytes) {
  given_interfaces(0);
  start();
  requests();
  said();
  byte_vector expected =
      message(RTM_GETNETCONF, bytes_of(netconfmsg{AF_INET6}) + attribute(NETCONFA_IFINDEX, bytes_of(std::uint32_t{3})));
  const std::uint16_t flags = NLM_F_REQUEST;
  std::memcpy(expected.data() + offsetof(nlmsghdr, nlmsg_flags), &flags, sizeof flags);
  ASSERT_EQ(Kernel.sent.size(), 1U);
  EXPECT_EQ(Kernel.sent[0], expected);
}

TEST_F(interface_watch_of, upstream_without_mif_gets_no_entry_until_it_is_registered) {
  given_interfaces(0);
  start();
  EXPECT_EQ(requests(), (lines{leave_of(4), join_of(4), leave_of(5), join_of(5)}));
  EXPECT_EQ(said(), (lines{"wan0, index 3, is not registered for multicast routing; waiting for tarnwick",
                           "joined ff02::16 on br0, index 4", "joined ff02::16 on lan1, index 5"}));
  tell(netconf_message(3, 1));
  EXPECT_EQ(requests(), lines{ADD_ENTRY});
  EXPECT_EQ(said(), lines{"added the static entry (::, ::) for MIF 3, wan0"});
}

TEST_F(interface_watch_of, missing_interfaces_are_waited_for_and_named_once) {
  start();
  EXPECT_EQ(said(), (lines{"interface wan0 is not there; waiting for it", "interface br0 is not there; waiting for it",
                           "interface lan1 is not there; waiting for it"}));
  look_at_everything();
  EXPECT_EQ(said(), lines{});
  tell(link_message(RTM_NEWLINK, 9, "eth9"));
  EXPECT_EQ(requests(), lines{});
  tell(link_message(RTM_NEWLINK, 7, "br0"));
  EXPECT_EQ(requests(), (lines{leave_of(7), join_of(7)}));
  EXPECT_EQ(said(), lines{"joined ff02::16 on br0, index 7"});
}

TEST_F(interface_watch_of, link_that_goes_up_and_down_changes_nothing) {
  given_working_companion();
  tell(link_message(RTM_NEWLINK, 4, "br0"));
  tell(link_message(RTM_NEWLINK, 3, "wan0"));
  tell(netconf_message(4, MC_FORWARDING_UNKNOWN));
}

TEST_F(interface_watch_of, downstream_made_again_with_another_index_is_joined_again) {
  given_working_companion();
  tell(netconf_message(4, MC_FORWARDING_UNKNOWN, RTM_DELNETCONF));
  EXPECT_EQ(requests(), lines{leave_of(4)});
  EXPECT_EQ(said(), lines{"left ff02::16 on br0, index 4"});
  tell(link_message(RTM_DELLINK, 4, "br0"));
  EXPECT_EQ(requests(), lines{leave_of(4)});
  EXPECT_EQ(said(), lines{"interface br0 is not there; waiting for it"});
  tell(netconf_message(8, 0)); // comes before the name of the new link is known
  tell(link_message(RTM_NEWLINK, 8, "br0"));
  EXPECT_EQ(requests(), (lines{leave_of(8), join_of(8)}));
  EXPECT_EQ(said(), lines{"joined ff02::16 on br0, index 8"});
}

TEST_F(interface_watch_of, name_that_moves_to_another_index_is_followed) {
  given_working_companion();
  tell(link_message(RTM_NEWLINK, 8, "br0"));
  EXPECT_EQ(requests(), (lines{leave_of(4), leave_of(8), join_of(8)}));
  EXPECT_EQ(said(), (lines{"left ff02::16 on br0, index 4", "joined ff02::16 on br0, index 8"}));
}

TEST_F(interface_watch_of, renamed_downstream_is_left) {
  given_working_companion();
  tell(link_message(RTM_NEWLINK, 4, "other"));
  EXPECT_EQ(requests(), lines{leave_of(4)});
  EXPECT_EQ(said(), (lines{"left ff02::16 on br0, index 4", "interface br0 is not there; waiting for it"}));
}

TEST_F(interface_watch_of, membership_follows_the_ipv6_side_of_an_interface) {
  given_working_companion();
  tell(netconf_message(5, MC_FORWARDING_UNKNOWN, RTM_DELNETCONF));
  EXPECT_EQ(requests(), lines{leave_of(5)});
  EXPECT_EQ(said(), lines{"left ff02::16 on lan1, index 5"});
  tell(netconf_message(5, 0));
  EXPECT_EQ(requests(), (lines{leave_of(5), join_of(5)}));
  EXPECT_EQ(said(), lines{"joined ff02::16 on lan1, index 5"});
}

TEST_F(interface_watch_of, deleted_upstream_takes_the_entry_with_it) {
  given_working_companion();
  tell(link_message(RTM_DELLINK, 3, "wan0"));
  EXPECT_EQ(requests(), lines{DELETE_ENTRY});
  EXPECT_EQ(said(), (lines{"removed the static entry (::, ::)", "interface wan0 is not there; waiting for it"}));
  Kernel.mc_forwarding = {{9, 0}};
  tell(link_message(RTM_NEWLINK, 9, "wan0"));
  EXPECT_EQ(said(), lines{"wan0, index 9, is not registered for multicast routing; waiting for tarnwick"});
  tell(netconf_message(3, 1)); // the old index is nobody's now
  EXPECT_EQ(requests(), lines{});
  tell(netconf_message(9, 1));
  EXPECT_EQ(requests(), lines{"MRT6_ADD_MFC :: :: parent 9 to 9"});
  EXPECT_EQ(said(), lines{"added the static entry (::, ::) for MIF 9, wan0"});
}

TEST_F(interface_watch_of, notifications_without_an_index_concern_no_missing_interface) {
  start();
  said();
  tell(link_message(RTM_DELLINK, 0, "br0"));
  tell(link_message(RTM_NEWLINK, 0, "br0"));
  tell(netconf_message(0, 1));
}

TEST_F(interface_watch_of, refused_join_is_reported_once_and_tried_at_the_next_event_of_the_interface) {
  given_interfaces(0);
  Kernel.refusals["IPV6_ADD_MEMBERSHIP"] = {EINVAL, 0, EINVAL, ENODEV};
  start();
  EXPECT_EQ(said(),
            (lines{"wan0, index 3, is not registered for multicast routing; waiting for tarnwick",
                   "cannot join ff02::16 on br0, index 4: Invalid argument", "joined ff02::16 on lan1, index 5"}));
  EXPECT_EQ(ms_until_retry(), -1);
  tell(netconf_message(4, MC_FORWARDING_UNKNOWN));
  EXPECT_EQ(said(), lines{});
  tell(netconf_message(4, MC_FORWARDING_UNKNOWN));
  EXPECT_EQ(said(), lines{"cannot join ff02::16 on br0, index 4: No such device"});
  tell(netconf_message(4, MC_FORWARDING_UNKNOWN));
  EXPECT_EQ(said(), lines{"joined ff02::16 on br0, index 4"});
  requests();
}

TEST_F(interface_watch_of, join_refused_for_want_of_memory_is_tried_again_after_a_second) {
  given_interfaces(0);
  Kernel.refusals["IPV6_ADD_MEMBERSHIP"] = {ENOBUFS};
  start();
  requests();
  said();
  EXPECT_EQ(ms_until_retry(), 1000);
  Kernel.now_ms += 999;
  EXPECT_FALSE(take_due_retry());
  Kernel.now_ms += 1;
  EXPECT_EQ(ms_until_retry(), 0);
  EXPECT_TRUE(take_due_retry());
  EXPECT_EQ(ms_until_retry(), -1);
  look_at_everything();
  EXPECT_EQ(requests(), (lines{leave_of(4), join_of(4), leave_of(5), join_of(5)}));
  EXPECT_EQ(said(), lines{"joined ff02::16 on br0, index 4"});
}

TEST_F(interface_watch_of, question_that_cannot_be_asked_is_reported_and_tried_again) {
  given_interfaces(1);
  Kernel.refusals["socket AF_NETLINK"] = {EMFILE};
  start();
  EXPECT_EQ(said()[0], "cannot ask for the multicast routing state of index 3: Too many open files");
  EXPECT_GE(ms_until_retry(), 0);
  requests();
  Kernel.now_ms += 1000;
  EXPECT_TRUE(take_due_retry());
  look_at_everything();
  EXPECT_EQ(requests()[0], ADD_ENTRY);
  said();
}

TEST_F(interface_watch_of, second_look_makes_everything_anew) {
  given_working_companion();
  Kernel.indexes = {{"wan0", 3}, {"br0", 4}, {"lan1", 8}};
  look_at_everything();
  EXPECT_EQ(requests(), (lines{ADD_ENTRY, leave_of(4), join_of(4), leave_of(5), leave_of(8), join_of(8)}));
  EXPECT_EQ(said(), (lines{"added the static entry (::, ::) for MIF 3, wan0", "left ff02::16 on lan1, index 5",
                           "joined ff02::16 on lan1, index 8"}));
}

TEST_F(interface_watch_of, second_look_notices_interfaces_that_are_gone) {
  given_working_companion();
  Kernel.indexes = {{"lan1", 5}};
  look_at_everything();
  EXPECT_EQ(requests(), (lines{DELETE_ENTRY, leave_of(4), leave_of(5), join_of(5)}));
  EXPECT_EQ(said(), (lines{"removed the static entry (::, ::)", "interface wan0 is not there; waiting for it",
                           "left ff02::16 on br0, index 4", "interface br0 is not there; waiting for it"}));
}

TEST_F(interface_watch_of, stop_takes_back_entry_and_memberships) {
  given_working_companion();
  stop_watch();
  EXPECT_EQ(requests(), (lines{DELETE_ENTRY, leave_of(4), leave_of(5)}));
  EXPECT_EQ(said(), (lines{"removed the static entry (::, ::)", "left ff02::16 on br0, index 4",
                           "left ff02::16 on lan1, index 5"}));
}

TEST_F(interface_watch_of, stop_leaves_alone_what_was_not_added) {
  given_interfaces(0);
  Kernel.indexes.erase("br0");
  Kernel.indexes.erase("lan1");
  start();
  said();
  stop_watch();
}

#include "fixture.h"

#include <cerrno>

namespace {

using static_entry_of = watch_fixture;

const byte_vector own_message = entry_message(RTM_NEWROUTE, 3, {3});

} // namespace

TEST_F(static_entry_of, own_message_is_not_answered) {
  given_working_companion();
  tell(own_message);
}

TEST_F(static_entry_of, deleted_entry_is_added_again) {
  given_working_companion();
  tell(entry_message(RTM_DELROUTE, 3, {3}));
  EXPECT_EQ(requests(), lines{ADD_ENTRY});
  EXPECT_EQ(said(), lines{"repaired the static entry (::, ::) for MIF 3, wan0"});
}

TEST_F(static_entry_of, entry_with_other_outputs_or_parent_is_replaced) {
  for (const byte_vector &wrong :
       {entry_message(RTM_NEWROUTE, 3, {4}), entry_message(RTM_NEWROUTE, 3, {4, 3}), entry_message(RTM_NEWROUTE, 3, {}),
        entry_message(RTM_NEWROUTE, 4, {3}), entry_message(RTM_NEWROUTE, 0, {3})}) {
    given_working_companion();
    tell(wrong);
    EXPECT_EQ(requests(), lines{ADD_ENTRY});
    EXPECT_EQ(said(), lines{"repaired the static entry (::, ::) for MIF 3, wan0"});
  }
}

TEST_F(static_entry_of, delete_and_wrong_entry_in_one_go_are_repaired_once) {
  given_working_companion();
  tell(entry_message(RTM_DELROUTE, 3, {3}) + entry_message(RTM_NEWROUTE, 3, {4}) + own_message);
  EXPECT_EQ(requests(), lines{ADD_ENTRY});
  said();
}

TEST_F(static_entry_of, change_after_the_own_message_is_repaired_again) {
  given_working_companion();
  tell(entry_message(RTM_DELROUTE, 3, {3}) + own_message + entry_message(RTM_NEWROUTE, 3, {4}) + own_message);
  EXPECT_EQ(requests(), (lines{ADD_ENTRY, ADD_ENTRY}));
  said();
}

TEST_F(static_entry_of, own_message_about_an_entry_without_effect_starts_no_loop) {
  given_working_companion();
  tell(entry_message(RTM_DELROUTE, 3, {3}));
  EXPECT_EQ(requests(), lines{ADD_ENTRY});
  said();
  for (int i = 0; i < 10; ++i) { // the MIF has gone while the request was made
    tell(entry_message(RTM_NEWROUTE, 0, {}));
  }
  EXPECT_EQ(requests(), lines{});
  tell(netconf_message(3, 0) + netconf_message(3, 1));
  EXPECT_EQ(requests(), lines{ADD_ENTRY});
  said();
}

TEST_F(static_entry_of, entry_is_left_alone_while_the_upstream_is_not_a_mif) {
  given_working_companion();
  tell(netconf_message(3, 0));
  EXPECT_EQ(said(), lines{"wan0 is no longer registered for multicast routing; waiting for tarnwick"});
  tell(entry_message(RTM_DELROUTE, 0, {}));
  tell(entry_message(RTM_NEWROUTE, 0, {4}));
  EXPECT_EQ(requests(), lines{});
}

TEST_F(static_entry_of, every_registration_adds_the_entry_again) {
  given_working_companion();
  tell(netconf_message(3, 0) + netconf_message(3, 1));
  EXPECT_EQ(requests(), lines{ADD_ENTRY});
  said();
}

TEST_F(static_entry_of, registration_of_a_downstream_is_of_no_concern) {
  given_working_companion();
  tell(netconf_message(4, 1) + netconf_message(4, 0));
}

TEST_F(static_entry_of, refused_request_is_reported_with_its_reason) {
  given_working_companion();
  Kernel.refusals["MRT6_ADD_MFC"] = {EACCES, EACCES};
  tell(entry_message(RTM_DELROUTE, 3, {3}));
  tell(entry_message(RTM_DELROUTE, 3, {3}));
  EXPECT_EQ(requests(), (lines{ADD_ENTRY, ADD_ENTRY}));
  EXPECT_EQ(said(), lines{"cannot add the static entry (::, ::) for MIF 3, wan0: Permission denied"});
  EXPECT_EQ(ms_until_retry(), -1);
}

TEST_F(static_entry_of, request_refused_for_want_of_memory_is_tried_again) {
  given_working_companion();
  Kernel.refusals["MRT6_ADD_MFC"] = {ENOMEM};
  tell(entry_message(RTM_DELROUTE, 3, {3}));
  requests();
  said();
  EXPECT_EQ(ms_until_retry(), 1000);
}

TEST_F(static_entry_of, refused_removal_is_reported_with_its_reason) {
  given_working_companion();
  Kernel.refusals["MRT6_DEL_MFC"] = {ENOENT};
  remove_static_entry();
  EXPECT_EQ(requests(), lines{DELETE_ENTRY});
  EXPECT_EQ(said(), lines{"cannot remove the static entry (::, ::): No such file or directory"});
}

TEST_F(static_entry_of, fight_over_the_entry_is_slowed_down) {
  given_working_companion();
  for (int i = 0; i < 300; ++i) {
    Kernel.used_us += 500;
    tell(entry_message(RTM_NEWROUTE, 4, {4}) + own_message);
  }
  EXPECT_EQ(requests().size(), 201U); // a tenth of the second's processor time, and the one that is within it
  const lines written = said();
  EXPECT_EQ(written.size(), 17U);
  EXPECT_EQ(written.back(), "another program keeps changing the static entry (::, ::); the next repair waits");
  EXPECT_EQ(ms_until_retry(), 1000);
  Kernel.now_ms += 1000;
  tell(entry_message(RTM_NEWROUTE, 4, {4}));
  EXPECT_EQ(requests(), lines{ADD_ENTRY});
  said();
}

namespace {

const byte_vector own_shield = entry_message(RTM_NEWROUTE, 0, {});
const std::string PUT_ENTRY = "MRT6_ADD_MFC_PROXY :: :: parent 3 to 3";
const std::string PUT_SHIELD = "MRT6_ADD_MFC_PROXY :: :: parent 0 to";

class shielded_static_entry : public watch_fixture {
protected:
  void given_shield() {
    given_interfaces(1);
    start(remedies_off{});
    tell(entry_message(RTM_NEWROUTE, 3, {3}) + own_shield);
    requests();
    said();
  }
};

} // namespace

TEST_F(shielded_static_entry, is_added_with_its_shield_behind_it) {
  given_interfaces(1);
  start(remedies_off{});
  const lines made = requests();
  EXPECT_EQ((lines{made[0], made[1]}), (lines{PUT_ENTRY, PUT_SHIELD}));
  said();
}

TEST_F(shielded_static_entry, change_takes_the_shield_and_needs_no_answer) {
  given_shield();
  for (int i = 0; i < 1000; ++i) {
    tell(entry_message(RTM_NEWROUTE, 3, {4}));
  }
}

TEST_F(shielded_static_entry, deleted_shield_is_put_again) {
  given_shield();
  tell(entry_message(RTM_DELROUTE, 0, {}) + entry_message(RTM_NEWROUTE, 3, {4}));
  EXPECT_EQ(requests(), (lines{PUT_ENTRY, PUT_SHIELD}));
  EXPECT_EQ(said(), lines{"repaired the static entry (::, ::) for MIF 3, wan0"});
  tell(entry_message(RTM_NEWROUTE, 3, {3}) + own_shield);
}

TEST_F(shielded_static_entry, refused_shield_leaves_repairs) {
  given_interfaces(1);
  Kernel.refusals["MRT6_ADD_MFC_PROXY"] = {0, EINVAL};
  start(remedies_off{});
  tell(entry_message(RTM_NEWROUTE, 3, {3}));
  requests();
  said();
  tell(entry_message(RTM_NEWROUTE, 3, {4}));
  EXPECT_EQ(requests(), (lines{PUT_ENTRY, PUT_SHIELD}));
  said();
}

TEST_F(shielded_static_entry, everything_that_stands_there_is_removed) {
  given_shield();
  Kernel.refusals["MRT6_DEL_MFC"] = {0, 0, ENOENT};
  remove_static_entry();
  EXPECT_EQ(requests(), lines(3, "MRT6_DEL_MFC :: :: parent 3 to"));
  EXPECT_EQ(said(), lines{"removed the static entry (::, ::)"});
}

#include "assist/group_question.h"

#include "fixture.h"

namespace {

const std::string group = "ff3e::1:2:3";
const std::string source = "2001:db8:2::10";
const std::string other_source = "2001:db8:2::11";

class group_question_of : public watch_fixture {
protected:
  void SetUp() override {
    watch_fixture::SetUp();
    given_quiet_companion();
    Kernel.entries = {source + " " + group};
  }

  void given_remedy_left_out(remedy left_out) {
    remedies_off without{};
    without[static_cast<std::size_t>(left_out)] = true;
    choose_remedies(without);
  }

  // What is asked within the next seconds.
  lines asked(std::int64_t within_ms = 10000) {
    wait(within_ms);
    return requests();
  }
};

mld_bytes block(const std::vector<std::string> &sources) {
  return report_bytes({record_bytes(MLD2_BLOCK_OLD_SOURCES, group, sources)});
}

scripted_mld query_of_another(const std::vector<std::string> &sources = {}, std::size_t response_code = 1000) {
  scripted_mld message;
  message.bytes = query_bytes(group, response_code, sources);
  message.sender = "fe80::1";
  message.destination = group;
  return message;
}

in6_addr to_in6(const std::string &text) { return to_in6_addr(address(text)); }

byte_vector entry_gone(const std::vector<std::uint32_t> &outputs = {4}) {
  return entry_message(RTM_DELROUTE, 3, outputs, in6addr_any, to_in6(group));
}

byte_vector entry_there(const std::vector<std::uint32_t> &outputs = {4}) {
  return entry_message(RTM_NEWROUTE, 3, outputs, in6addr_any, to_in6(group));
}

} // namespace

// After a leave

TEST_F(group_question_of, block_is_asked_about_after_half_a_second) {
  hear(block({source}));
  EXPECT_EQ(asked(499), lines{});
  EXPECT_EQ(asked(1), lines{query_for(group)});
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, everything_that_may_remove_a_listener_is_asked_about) {
  for (const mld_bytes &message :
       {report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, group)}),
        report_bytes({record_bytes(MLD2_MODE_IS_INCLUDE, group)}), block({source}), block({"::"}),
        block({source, other_source, "::1", "::2", "::3", "::4"}), v1_bytes(ICMPV6_MGM_REDUCTION, group)}) {
    hear(message);
    EXPECT_EQ(asked(), lines{query_for(group)});
  }
}

TEST_F(group_question_of, what_removes_nobody_is_not_asked_about) {
  for (const mld_bytes &message :
       {report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, group, {source})}),
        report_bytes({record_bytes(MLD2_MODE_IS_INCLUDE, group, {source})}),
        report_bytes({record_bytes(MLD2_MODE_IS_EXCLUDE, group)}),
        report_bytes({record_bytes(MLD2_CHANGE_TO_EXCLUDE, group)}),
        report_bytes({record_bytes(MLD2_CHANGE_TO_EXCLUDE, group, {source})}),
        report_bytes({record_bytes(MLD2_ALLOW_NEW_SOURCES, group, {source})}), block({}),
        report_bytes({record_bytes(static_cast<mld_record_type>(7), group)}), v1_bytes(ICMPV6_MGM_REPORT, group),
        report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, "ff02::1:3")}),
        report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, "2001:db8::1")})}) {
    hear(message);
    EXPECT_EQ(asked(), lines{});
  }
}

TEST_F(group_question_of, two_blocks_within_half_a_second_are_asked_about_once) {
  hear(block({source}));
  wait(300);
  hear(block({source}));
  EXPECT_EQ(asked(), lines{query_for(group)});
}

TEST_F(group_question_of, block_after_the_question_is_asked_about_again) {
  hear(block({source}));
  EXPECT_EQ(asked(600), lines{query_for(group)});
  hear(block({source}));
  EXPECT_EQ(asked(), lines{query_for(group)});
}

TEST_F(group_question_of, each_interface_is_asked_about_its_own_leave) {
  hear(block({source}), 5);
  EXPECT_EQ(asked(), lines{query_for(group, 5)});
  hear(block({source}), 3); // the upstream
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, every_record_of_a_report_counts) {
  hear(report_bytes({record_bytes(MLD2_ALLOW_NEW_SOURCES, "ff0e::1", {source}),
                     record_bytes(MLD2_CHANGE_TO_INCLUDE, "ff0e::2"),
                     record_bytes(MLD2_BLOCK_OLD_SOURCES, group, {source})}));
  EXPECT_EQ(asked(), (lines{query_for("ff0e::2"), query_for(group)}));
}

TEST_F(group_question_of, another_queriers_question_is_enough) {
  hear(block({source}));
  hear(query_of_another());
  EXPECT_EQ(asked(), lines{});
  hear(block({source, other_source}));
  hear(query_of_another({other_source, "2001:db8::5", source}));
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, question_that_leaves_a_listener_unasked_is_not_enough) {
  hear(block({source, other_source}));
  hear(query_of_another({source}));
  EXPECT_EQ(asked(), lines{query_for(group)});
  hear(report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, group)}));
  hear(query_of_another({source}));
  EXPECT_EQ(asked(), lines{query_for(group)});
  hear(block({source, other_source, "::1", "::2", "::3"})); // more than are remembered
  hear(query_of_another({source, other_source, "::1", "::2", "::3"}));
  EXPECT_EQ(asked(), lines{query_for(group)});
}

TEST_F(group_question_of, question_before_the_leave_is_not_enough) {
  hear(query_of_another());
  hear(block({source}));
  EXPECT_EQ(asked(), lines{query_for(group)});
}

TEST_F(group_question_of, forged_and_slow_questions_are_not_enough) {
  std::vector<scripted_mld> forged(5, query_of_another());
  forged[0].sender = "2001:db8::1";
  forged[1].hop_limit = 2;
  forged[2].hop_by_hop = {58, 0, 1, 4, 0, 0, 0, 0};
  forged[3].destination = "fe80::4";
  forged[4] = query_of_another({}, 10001);
  hear(block({source}));
  for (const scripted_mld &message : forged) {
    hear(message);
  }
  EXPECT_EQ(asked(), lines{query_for(group)});
}

TEST_F(group_question_of, made_up_groups_keep_nobody_waiting) {
  for (int i = 0; i < 1000; ++i) {
    hear(report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, "ff0e::" + std::to_string(i % 1000))}));
  }
  hear(block({source}));
  EXPECT_EQ(asked().size(), 9U);
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, table_that_is_full_takes_no_more) {
  Kernel.entries.clear();
  for (int i = 0; i < 129; ++i) {
    const std::string one = "ff0e::" + std::to_string(i + 1);
    Kernel.entries.push_back(":: " + one);
    hear(report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, one)}));
  }
  EXPECT_EQ(asked(60000).size(), 128U);
}

TEST_F(group_question_of, remedy_that_is_left_out_asks_nobody_after_a_leave) {
  given_remedy_left_out(remedy::ask_after_leave);
  hear(block({source}));
  EXPECT_EQ(asked(), lines{});
}

// After an end

TEST_F(group_question_of, ended_group_is_asked_about_twice) {
  tell(entry_gone());
  EXPECT_EQ(asked(99), lines{});
  EXPECT_EQ(asked(1), lines{query_for(group)});
  EXPECT_EQ(asked(999), lines{});
  EXPECT_EQ(asked(1), lines{query_for(group)});
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, every_interface_of_the_entry_is_asked) {
  tell(entry_gone({4, 5, 7}));
  EXPECT_EQ(asked(100), (lines{query_for(group), query_for(group, 5)}));
  asked();
}

TEST_F(group_question_of, refreshed_entry_is_not_asked_about) {
  tell(entry_gone() + entry_there());
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, answered_question_is_not_repeated) {
  tell(entry_gone());
  EXPECT_EQ(asked(100), lines{query_for(group)});
  tell(entry_there());
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, entry_that_returns_for_another_interface_answers_nothing) {
  tell(entry_gone());
  tell(entry_there({5}));
  EXPECT_EQ(asked(100), lines{query_for(group)});
  asked();
}

TEST_F(group_question_of, entry_that_comes_and_goes_is_asked_about_every_five_seconds_at_most) {
  lines all;
  for (int i = 0; i < 100; ++i) { // 20 s
    tell(entry_gone());
    const lines some = asked(200);
    all.insert(all.end(), some.begin(), some.end());
    tell(entry_there());
  }
  EXPECT_LE(all.size(), 4U);
}

TEST_F(group_question_of, end_of_the_daemon_is_not_asked_about) {
  tell(entry_gone());
  tell(netconf_message(3, 0));
  tell(entry_message(RTM_DELROUTE, 3, {4}, in6addr_any, to_in6("ff0e::7")));
  said();
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, unresolved_entry_is_not_asked_about) {
  tell(entry_gone({}));
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, leave_and_end_are_asked_about_in_one) {
  hear(block({source}));
  wait(450);
  tell(entry_gone());
  EXPECT_EQ(asked(50), lines{query_for(group)});
  EXPECT_EQ(asked(), (lines{query_for(group), query_for(group)}));
}

TEST_F(group_question_of, remedy_that_is_left_out_asks_nobody_after_an_end) {
  given_remedy_left_out(remedy::ask_after_end);
  tell(entry_gone());
  EXPECT_EQ(asked(), lines{});
}

TEST_F(group_question_of, interface_that_goes_takes_its_questions_with_it) {
  hear(block({source}));
  tell(link_message(RTM_DELLINK, 4, "br0"));
  requests();
  said();
  EXPECT_EQ(asked(), lines{});
}

#include "assist/querier.h"

#include "assist/deadline.h"
#include "fixture.h"

#include <cerrno>

namespace {

class querier_of : public watch_fixture {
protected:
  void given_companion_without(remedy left_out) {
    given_interfaces(1);
    remedies_off without{};
    without[static_cast<std::size_t>(left_out)] = true;
    start(without);
    requests();
    said();
  }
};

constexpr std::int64_t interval_ms = 125000;
constexpr std::int64_t other_ms = 130000;

scripted_mld other_query(const std::string &group = "::", std::size_t response_code = 10000) {
  scripted_mld message;
  message.bytes = query_bytes(group, response_code);
  message.sender = "fe80::1";
  message.destination = "ff02::1";
  return message;
}

} // namespace

TEST_F(querier_of, every_lan_is_asked_at_once_and_every_125_seconds) {
  given_working_companion();
  wait(0);
  EXPECT_EQ(requests(), (lines{general_query(4), general_query(5)}));
  wait(interval_ms - 1);
  EXPECT_EQ(requests(), lines{});
  wait(1);
  EXPECT_EQ(requests(), (lines{general_query(4), general_query(5)}));
}

TEST_F(querier_of, nothing_is_due_between_two_general_queries) {
  given_working_companion();
  EXPECT_EQ(ms_until_next_deadline(), 0);
  handle_deadlines();
  requests();
  EXPECT_EQ(ms_until_next_deadline(), interval_ms);
}

TEST_F(querier_of, left_out_general_queries_are_not_sent) {
  given_companion_without(remedy::general_queries);
  EXPECT_EQ(ms_until_next_deadline(), -1);
  wait(3 * interval_ms);
}

TEST_F(querier_of, another_querier_silences_one_lan_for_130_seconds) {
  given_quiet_companion();
  wait(100000);
  hear(other_query());
  wait(other_ms - 1);
  EXPECT_EQ(requests(), lines{general_query(5)});
  wait(1);
  EXPECT_EQ(requests(), lines{general_query(4)});
}

TEST_F(querier_of, version_1_querier_silences_too) {
  given_quiet_companion();
  scripted_mld message = other_query();
  message.bytes = v1_bytes(ICMPV6_MGM_QUERY, "::", 10000);
  wait(100000);
  hear(message);
  wait(other_ms - 1);
  EXPECT_EQ(requests(), lines{general_query(5)});
}

TEST_F(querier_of, forged_queries_silence_nobody) {
  given_quiet_companion();
  std::vector<scripted_mld> forged(6, other_query());
  forged[0].destination = "fe80::4"; // unicast
  forged[1].sender = "::";
  forged[2].hop_limit = 255;
  forged[3].hop_by_hop = {};
  forged[4].bytes = {ICMPV6_MGM_QUERY, 0, 0, 0};
  forged[5].bytes = query_bytes("::", 10000, {"2001:db8::1"});
  for (const scripted_mld &message : forged) {
    hear(message);
  }
  hear(other_query("ff0e::1"));    // about one group
  hear(other_query("::", 0xffff)); // hosts may take 8387 s to answer
  wait(interval_ms);
  EXPECT_EQ(requests(), (lines{general_query(4), general_query(5)}));
}

TEST_F(querier_of, query_on_the_upstream_is_of_no_concern) {
  given_quiet_companion();
  scripted_mld message = other_query();
  message.index = 3;
  hear(message);
  wait(interval_ms);
  EXPECT_EQ(requests(), (lines{general_query(4), general_query(5)}));
}

TEST_F(querier_of, refused_query_is_reported_once_and_tried_less_and_less_often) {
  given_interfaces(1);
  Kernel.own_addresses = {{5, "fe80::5"}};
  start();
  requests();
  said();
  wait(0);
  EXPECT_EQ(said(), lines{"cannot send a query on br0, index 4: Cannot assign requested address"});
  wait(interval_ms - 1);
  EXPECT_EQ(requests(), lines{general_query(5)});
  Kernel.own_addresses[4] = "fe80::4";
  wait(interval_ms);
  EXPECT_EQ(requests(), (lines{general_query(5), general_query(4)}));
  wait(interval_ms);
  EXPECT_EQ(requests(), (lines{general_query(5), general_query(4)}));
}

TEST_F(querier_of, refused_query_is_tried_again_soon_when_the_interface_changes) {
  given_interfaces(1);
  Kernel.own_addresses = {{5, "fe80::5"}};
  start();
  wait(60000);
  requests();
  said();
  Kernel.own_addresses[4] = "fe80::4";
  tell(link_message(RTM_NEWLINK, 4, "br0"));
  wait(1000);
  EXPECT_EQ(requests(), lines{general_query(4)});
}

TEST_F(querier_of, interface_that_goes_is_asked_no_more) {
  given_quiet_companion();
  tell(link_message(RTM_DELLINK, 4, "br0"));
  requests();
  said();
  wait(interval_ms);
  EXPECT_EQ(requests(), lines{general_query(5)});
}

TEST_F(querier_of, interface_that_comes_is_asked_at_once) {
  given_quiet_companion();
  tell(link_message(RTM_DELLINK, 4, "br0"));
  Kernel.own_addresses[8] = "fe80::8";
  tell(link_message(RTM_NEWLINK, 8, "br0"));
  requests();
  said();
  wait(0);
  EXPECT_EQ(requests(), lines{general_query(8)});
}

TEST_F(querier_of, one_interface_is_asked_no_more_than_ten_times_a_second) {
  given_quiet_companion();
  for (int i = 0; i < 30; ++i) {
    const std::string group = "ff0e::" + std::to_string(i + 1);
    Kernel.entries.push_back(":: " + group);
    hear(report_bytes({record_bytes(MLD2_CHANGE_TO_INCLUDE, group)}));
  }
  wait(499);
  EXPECT_EQ(requests(), lines{});
  for (int second = 0; second < 3; ++second) {
    wait(second == 0 ? 991 : 1000);
    EXPECT_EQ(requests().size(), 10U);
  }
  wait(1000);
}

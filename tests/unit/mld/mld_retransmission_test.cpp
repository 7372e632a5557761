#include "mld/mld_retransmission.h"

#include "fixture.h"
#include "mld/mld_filter.h"
#include "mld/mld_group.h"
#include "mld/mld_leave.h"

#include <algorithm>
#include <cerrno>

namespace {

using namespace scripted;

constexpr char retransmit[] = "mld_router_retransmit_timer_expired";
constexpr char drop[] = "mld_proxy_drop_membership";

struct mld_retransmission : mld_fixture {
  mld_retransmission() { lan1->query_timer = br0->query_timer = 124; }

  // A group whose queries are all sent; its slots have that many seconds left.
  mld_group *given_asked(const lines &sources = {}, const std::vector<int> &timers = {}) {
    mld_group *group = given_group(br0, "ff0e::1", sources);
    for (std::size_t i = 0; i < timers.size(); ++i) {
      group->sources[i].source_timer = timers[i];
    }
    given_checking(group, 0, 0);
    group->group_timer = 2;
    return group;
  }

  mld_group *when_decided(mld_group *group, bool is_suppressed = false) {
    mld_group *next = nullptr;
    when([&] { next = mld_router_retransmit_timer_expired(br0, group, is_suppressed); });
    return next;
  }

  // Requests and log lines of one tick.
  lines when_ticked_once() {
    when_ticked();
    return take_transcript();
  }
};

lines blocked(const std::string &source) {
  return {"setsockopt(wan0, MCAST_BLOCK_SOURCE) group=ff0e::1 source=" + source + " ifindex=2",
          logged_debug(retransmit, "setsockopt: MCAST_BLOCK_SOURCE")};
}

lines deleted(const std::string &source) {
  return {"setsockopt(mld, MRT6_DEL_MFC) origin=" + source + " group=ff0e::1 parent=2 outputs={}",
          logged_debug(retransmit, "setsockopt: MRT6_DEL_MFC")};
}

lines kept(const std::string &source) { return {logged_debug(retransmit, "unblock origin " + log_text(source))}; }

lines all(const std::vector<lines> &parts) {
  lines joined;
  for (const lines &part : parts) {
    joined.insert(joined.end(), part.begin(), part.end());
  }
  return joined;
}

lines ended(const std::vector<std::string> &sources) {
  lines expected{
      logged_debug(retransmit, "remove group mcast " + log_text("ff0e::1")),
      "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=ff0e::1 ifindex=2",
      logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP"),
  };
  for (const std::string &source : sources) {
    expected.push_back("setsockopt(mld, MRT6_DEL_MFC) origin=" + source + " group=ff0e::1 parent=2 outputs={}");
    expected.push_back(logged_debug(drop, "setsockopt: MRT6_DEL_MFC"));
  }
  expected.push_back(
      logged_debug(retransmit, "Network:br0 Group:" + log_text("ff0e::1") + " State = No members present."));
  return expected;
}

TEST_F(mld_retransmission, expired_sources_are_blocked_and_the_others_kept_in_order) {
  mld_group *group = given_asked({"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4"}, {0, 20, -5, 30});
  group->sources[3].forward = 0;
  when_decided(group);
  then(all({blocked("2001:db8::1"), deleted("2001:db8::1"), blocked("2001:db8::3"), deleted("2001:db8::3"),
            kept("2001:db8::2"), kept("2001:db8::4")}));
  ASSERT_EQ(group->source_count, 2);
  EXPECT_EQ(text(group->sources[0].address), "2001:db8::2");
  EXPECT_EQ(group->sources[0].source_timer, 20);
  EXPECT_EQ(group->sources[0].forward, 1u);
  EXPECT_EQ(text(group->sources[1].address), "2001:db8::4");
  EXPECT_EQ(group->sources[1].source_timer, 30);
  EXPECT_EQ(group->sources[1].forward, 0u);
  EXPECT_EQ(text(group->sources[2].address), "::") << "slots that are free again are cleared";
  EXPECT_EQ(group->sources[2].source_timer, 0);
  EXPECT_EQ(group->state, MLD_GROUP_MEMBERS_PRESENT);
  EXPECT_EQ(group->group_timer, 2) << "as the leave left it";
}

TEST_F(mld_retransmission, source_that_was_blocked_before_takes_the_entry_of_all_sources_along) {
  mld_group *group = given_asked({"2001:db8::1", "2001:db8::2"}, {0, 20});
  group->sources[0].forward = 0;
  when_decided(group);
  then(all({blocked("2001:db8::1"), deleted("2001:db8::1"), deleted("::"), kept("2001:db8::2")}));
}

TEST_F(mld_retransmission, with_a_lasting_any_source_listener_nothing_is_blocked) {
  mld_group *group = given_asked({"2001:db8::1", "::"}, {0, 200});
  group->sources[0].forward = 0;
  when_decided(group, true);
  then(all({deleted("2001:db8::1"), kept("::")}));
  EXPECT_EQ(group->source_count, 1);
}

TEST_F(mld_retransmission, refusals_are_logged_and_the_source_is_gone_all_the_same) {
  mld_group *group = given_asked({"2001:db8::1", "2001:db8::2"}, {0, 20});
  group->sources[0].forward = 0;
  given_failure("setsockopt(wan0, MCAST_BLOCK_SOURCE)", EINVAL);
  given_failure("setsockopt(mld, MRT6_DEL_MFC)", ENOENT, 2);
  when_decided(group);
  const std::string delete_failed = logged_error(retransmit, "setsockopt: MRT6_DEL_MFC fail!!!");
  then({
      blocked("2001:db8::1")[0],
      logged_error(retransmit, "setsockopt: MCAST_BLOCK_SOURCE fail!!!"),
      deleted("2001:db8::1")[0],
      delete_failed,
      deleted("2001:db8::1")[1],
      deleted("::")[0],
      delete_failed,
      deleted("::")[1],
      kept("2001:db8::2")[0],
  });
  EXPECT_EQ(group->source_count, 1);
}

TEST_F(mld_retransmission, group_whose_sources_all_ran_out_ends_without_a_leave_record) {
  mld_group *group = given_asked({"2001:db8::1", "::"}, {0, -11});
  when_decided(group);
  then(ended({"2001:db8::1", "::"}));
  EXPECT_EQ(group->state, MLD_GROUP_NO_MEMBERS);
  EXPECT_EQ(group->source_count, 0);
  EXPECT_EQ(list_get_head(&MldRouter.free_groups), &group->link);
  EXPECT_EQ(length(br0->groups), 0);
  EXPECT_TRUE(Kernel.commands.empty());
}

TEST_F(mld_retransmission, group_without_sources_ends) {
  when_decided(given_asked());
  then(ended({}));
}

TEST_F(mld_retransmission, group_that_follows_is_returned_whether_this_one_ends_or_not) {
  mld_group *following = given_group(br0, "ff0e::2");
  mld_group *group = given_asked({"2001:db8::1"}, {5});
  EXPECT_EQ(when_decided(group), following);
  EXPECT_EQ(group->state, MLD_GROUP_MEMBERS_PRESENT);
  group->sources[0].source_timer = 0;
  EXPECT_EQ(when_decided(group), following);
  EXPECT_EQ(group->state, MLD_GROUP_NO_MEMBERS);
  then_anything();
}

TEST_F(mld_retransmission, group_that_cannot_be_unlinked_stays_as_it_is) {
  given_group(br0, "ff0e::2");
  mld_group *elsewhere = given_group(lan1, "ff0e::1");
  given_checking(elsewhere, 0, 0);
  EXPECT_EQ(when_decided(elsewhere), nullptr);
  then({logged_error(retransmit, "Group Removal of " + log_text("ff0e::1") + " unsuccesful.")});
  EXPECT_EQ(elsewhere->state, MLD_GROUP_CHECKING_MEMBERSHIP);
}

TEST_F(mld_retransmission, group_that_another_interface_has_keeps_its_membership) {
  given_group(lan1, "ff0e::1");
  when_decided(given_asked());
  then_in_order({
      logged_debug(retransmit, "remove group mcast " + log_text("ff0e::1")),
      logged_debug(drop, "Group " + log_text("ff0e::1") + " on interface lan1 still there. Not dropping."),
      logged_debug(drop, "setsockopt: MRT6_ADD_MFC"),
      logged_debug(retransmit, "Network:br0 Group:" + log_text("ff0e::1") + " State = No members present."),
  });
}

// Whole leaves, tick by tick.

TEST_F(mld_retransmission, leave_that_nobody_answers_asks_once_and_ends_with_the_twelfth_tick) {
  given_group(br0, "ff0e::1", {"::"});
  owned_record leave = record(MLD2_CHANGE_TO_INCLUDE, "ff0e::1");
  const ipv6_address host = address("fe80::99");
  when([&] { mld_router_v2_leave_group(br0, leave.view(), &host); });
  then_anything();
  when_ticked();
  then({
      "| ",
      "| ",
      logged_debug("mld_router_timer_expired", "[GROUP STATE] MLD_ROUTER_CHECKING_MEMBERSHIP, retransmit_timer = 0"),
      "socket(AF_PACKET, SOCK_RAW, 58)",
      "setsockopt(br0, IPV6_MULTICAST_IF) = 3",
      logged_debug("mld_router_v2_send_query_more_src",
                   "Specific Multicast with Any-Source query, call mld_router_v2_send_query()"),
      "socket(AF_PACKET, SOCK_RAW, 58)",
      "setsockopt(br0, IPV6_MULTICAST_IF) = 3",
      "sendto(fd 1101, 90 bytes) protocol=58 ifindex=3 hatype=1 pkttype=2 mac=33:33:00:00:00:01",
      logged_debug("mld_router_v2_send_query", "[QUERY] group: " + log_text("ff0e::1")),
      "close(fd 1101)",
      "close(fd 1100)",
  });
  when_ticked(10);
  then({});
  EXPECT_EQ(length(br0->groups), 1);
  when_ticked();
  then(all(
      {{"| ", "| ",
        logged_debug("mld_router_timer_expired", "[GROUP STATE] MLD_ROUTER_CHECKING_MEMBERSHIP, retransmit_timer = 0")},
       ended({"::"})}));
  EXPECT_EQ(length(br0->groups), 0);
  EXPECT_EQ(file_contents("/tmp/tarnwick_leave_record"), std::nullopt);
}

TEST_F(mld_retransmission, report_during_a_leave_keeps_the_group) {
  mld_group *group = given_group(br0, "ff0e::1", {"::"});
  when_received(mldv2_report({{MLD2_CHANGE_TO_INCLUDE, "ff0e::1"}}), "fe80::99", 3);
  when_ticked(2);
  when_received(mldv2_report({{MLD2_MODE_IS_EXCLUDE, "ff0e::1"}}), "fe80::98", 3);
  EXPECT_EQ(group->state, MLD_GROUP_CHECKING_MEMBERSHIP) << "until the answer time is over";
  when_ticked(10);
  EXPECT_EQ(list_get_head(&br0->groups), &group->link);
  EXPECT_EQ(group->state, MLD_GROUP_MEMBERS_PRESENT);
  EXPECT_EQ(group->group_timer, 350);
  then_anything();
}

// A source that a host gives up while its timer still runs is not asked for, and the group timer that its leave set
// ends the group although the source was wanted.
TEST_F(mld_retransmission, block_of_a_living_source_asks_nothing_and_ends_the_group_sixteen_ticks_later) {
  mld_group *group = given_group(br0, "ff0e::1", {"2001:db8::1"});
  when_received(mldv2_report({{MLD2_BLOCK_OLD_SOURCES, "ff0e::1", {"2001:db8::1"}}}), "fe80::99", 3);
  then_anything();
  when_ticked();
  then({});
  const lines second = when_ticked_once();
  EXPECT_EQ(std::count(second.begin(), second.end(),
                       logged_debug("mld_router_v2_send_query_more_src", "No source address need to query")),
            1);
  when_ticked(10);
  then({});
  const lines thirteenth = when_ticked_once();
  EXPECT_EQ(thirteenth.back(), kept("2001:db8::1")[0]);
  EXPECT_EQ(group->state, MLD_GROUP_MEMBERS_PRESENT);
  when_ticked(2);
  then({});
  EXPECT_EQ(group->group_timer, 0);
  when_ticked();
  then_in_order({logged_debug("mld_router_group_timer_expired", "Group timer expired."),
                 "system(killall -USR2 igmp_snooping)",
                 "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=ff0e::1 ifindex=2"});
  EXPECT_EQ(length(br0->groups), 0);
}

} // namespace

// The judgements of --check, from facts that no kernel gave.
#include "status/check.h"
#include "status/check_entry.h"
#include "status/check_hosts.h"
#include "status/check_interfaces.h"
#include "status/check_kernel.h"
#include "status/check_lan.h"
#include "status/check_output.h"
#include "status/check_programs.h"
#include "status/check_upstream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <linux/if.h>
#include <linux/if_bridge.h>
#include <string>

namespace {

constexpr std::uint32_t lan_index = 2;
constexpr std::uint32_t upstream_index = 3;
constexpr std::uint32_t port_index = 4;
constexpr mac_address lan_mac{0x02, 0, 0, 0, 0x01, 0xfe};

template <typename text_array> text_array named(const char *written) {
  text_array array{};
  std::strcpy(array.data(), written);
  return array;
}

interface_text interface(const char *name) { return named<interface_text>(name); }
group_text address(const char *written) { return named<group_text>(written); }

// A router on which ff0e::1 flows from wan0 to br0 and its one port lan-a. Each test breaks one thing.
struct check_judgement : testing::Test {
  check_list list;
  snapshot shown{};
  path_facts facts{};
  check_subject subject{};
  rows_of<mif_row> mifs;
  cache_row tree{address("::"), address("::"), 3, 0, 0, 0, 1U << 3};
  cache_row entry{address("ff0e::1"), address("::"), 3, 100, 10000, 0, 1U << 2};
  std::string rules = R"({"nftables":[]})";

  void SetUp() override {
    subject.group = address("ff0e::1");
    subject.has_daemon = subject.has_state = true;
    subject.daemon.pid = 412;
    subject.snapshot = &shown;
    add_row(mifs, mif_row{3, interface("wan0"), {}, 0, 0, 0, 0});
    add_row(mifs, mif_row{2, interface("br0"), {}, 0, 0, 0, 0});
    shown.mifs = &mifs;
    add_row(shown.interfaces, interface_row{{{}, interface("wan0"), 0, 0, 0, 0}, true, &mifs.first[0]});
    add_row(shown.interfaces, interface_row{{{}, interface("br0"), 0, 1, 0, 0}, false, &mifs.first[1]});
    add_row(shown.listeners, group_line{interface("br0"), subject.group, 10});
    add_row(shown.streams, stream_row{stream_kind::wanted, &entry, 0, 0});
    add_row(shown.streams, stream_row{stream_kind::static_tree, &tree, 0, 0});
    facts.network.has_links = true;
    facts.daemon_started_at_seconds = 100;
    facts.room = {false, 10, 1024};
    add_link(upstream_index, "wan0");
    add_link(lan_index, "br0").is_bridge = true;
    link(lan_index).snooping = 1;
    link(lan_index).mac = lan_mac;
    add_link(port_index, "lan-a").bridge = lan_index;
    link(port_index).port_state = BR_STATE_FORWARDING;
    add_row(facts.network.groups, bridge_group_row{lan_index, port_index, subject.group});
    for (const std::uint32_t index : {upstream_index, lan_index}) {
      add_row(facts.network.addresses, link_local_row{index, address("fe80::1"), true, 50});
    }
    add_row(facts.memberships, membership_row{upstream_index, subject.group, 1});
    add_row(facts.memberships, membership_row{lan_index, address("ff02::16"), 1});
    add_row(facts.captures, group_capture{upstream_index, 0, 100, 0, 8, address("2001:db8::1")});
    add_row(facts.captures, group_capture{lan_index, 0, 0, 100, -1, {}});
    add_row(facts.captures, group_capture{port_index, 0, 0, 100, -1, {}});
    add_text(facts.lan_mac, "02:00:00:00:01:fe");
    facts.rules.is_read = true;
  }

  void TearDown() override {
    free_checks(list);
    free_rows(mifs);
    free_rows(shown.interfaces);
    free_rows(shown.listeners);
    free_rows(shown.streams);
    free_network_tables(facts.network);
    free_rows(facts.memberships);
    free_rows(facts.group_sources);
    free_rows(facts.captures);
    free_rows(facts.lan_mac);
    free_rows(facts.served);
    free_rows(facts.heard);
    free_rows(facts.rules.nft.values);
    free_rows(subject.problem);
  }

  link_row &add_link(std::uint32_t index, const char *name) {
    link_row row{};
    row.index = index;
    row.flags = static_cast<std::uint32_t>(IFF_UP) | static_cast<std::uint32_t>(IFF_LOWER_UP);
    row.name = interface(name);
    return add_row(facts.network.links, row);
  }

  link_row &link(std::uint32_t index) { return const_cast<link_row &>(*find_link(facts.network, index)); }

  // The finding of the first NO; "" if there is none.
  std::string verdict() {
    clear_checks(list);
    parse_json(facts.rules.nft, rules.c_str());
    program_facts programs{};
    programs.companion.pid = 413;
    check_programs(list, subject, programs, facts.room);
    check_interfaces(list, subject, facts);
    check_lan(list, subject, facts);
    check_hosts(list, subject, facts);
    check_upstream(list, subject, facts);
    check_entry(list, subject);
    check_output(list, subject, facts);
    const check_step *found = verdict_of(list);
    EXPECT_TRUE(found == nullptr || found->cure != NO_CURE) << finding_of(list, *found);
    return found == nullptr ? "" : finding_of(list, *found);
  }
};

TEST_F(check_judgement, healthy_router_is_all_ok) {
  EXPECT_EQ(verdict(), "");
  EXPECT_EQ(check_status(list), CHECK_ALL_OK);
}

TEST_F(check_judgement, what_could_not_be_looked_at_has_a_status_of_its_own) {
  facts.rules.is_read = false;
  EXPECT_EQ(verdict(), "");
  EXPECT_EQ(check_status(list), CHECK_COULD_NOT_LOOK);
  facts.captures.first[0].arrived = 0;
  EXPECT_NE(verdict(), "");
  EXPECT_EQ(check_status(list), CHECK_SAYS_NO);
}

TEST_F(check_judgement, last_descriptors_are_told_before_the_answer_that_fails_for_them) {
  facts.room = {false, 1023, 1024};
  subject.answer = state_answer::no_answer;
  EXPECT_EQ(verdict(), "tarnwick has 1023 of 1024 descriptors open, and cannot send queries");
  facts.room = {false, 1022, 1024};
  EXPECT_EQ(verdict(), "tarnwick (process 412) does not answer: it hangs, or cannot write to /tmp");
}

TEST_F(check_judgement, registered_index_is_compared_with_that_of_today) {
  link(lan_index).index = 9;
  EXPECT_EQ(verdict(), "br0 was made anew: it has index 9 now and is registered as 2");
  shown.interfaces.first[1].mif = nullptr;
  EXPECT_EQ(verdict(), "br0 was made anew: it has index 9 now and is not registered");
}

TEST_F(check_judgement, interface_that_is_gone_is_named_by_the_command_line) {
  shown.interfaces.first[1].counters.name = interface(GONE_INTERFACE);
  EXPECT_EQ(verdict(), "an interface that tarnwick serves is gone");
  add_row(facts.served, interface("wan0"));
  add_row(facts.served, interface("br7"));
  EXPECT_EQ(verdict(), "br7 is gone");
}

TEST_F(check_judgement, hosts_are_told_by_version) {
  const auto has_finding = [&](const char *wanted) {
    const std::span<check_step> steps = all_rows(list.steps);
    return std::any_of(steps.begin(), steps.end(),
                       [&](const check_step &step) { return std::strcmp(finding_of(list, step), wanted) == 0; });
  };
  add_row(facts.heard, heard_line{heard_kind::mldv1_report, lan_index, subject.group, address("fe80::5"), 7});
  add_row(facts.heard, heard_line{heard_kind::mldv2_report, port_index, subject.group, address("fe80::6"), 6});
  EXPECT_EQ(verdict(), "");
  EXPECT_TRUE(has_finding("1 host on br0 reported ff0e::1, fe80::5 7 s ago (MLDv1): only MLDv1 hosts, whose leaves "
                          "are not heard"));
  add_row(facts.heard, heard_line{heard_kind::mldv2_report, lan_index, subject.group, address("fe80::7"), 6});
  EXPECT_EQ(verdict(), "");
  EXPECT_TRUE(has_finding("2 hosts on br0 reported ff0e::1, fe80::7 6 s ago (MLDv2)"));
}

TEST_F(check_judgement, address_that_is_younger_than_the_daemon_is_told) {
  facts.network.addresses.first[1].created_at_seconds = 101;
  EXPECT_EQ(verdict(), "br0 got its link-local address fe80::1 after tarnwick started");
  facts.network.addresses.first[1].is_usable = false;
  EXPECT_EQ(verdict(), "br0 has no link-local address that can be used");
}

TEST_F(check_judgement, querier_is_silent_when_a_query_is_overdue) {
  link(lan_index).querier = address("fe80::5");
  link(lan_index).querier_total_centiseconds = 25500;
  link(lan_index).querier_left_centiseconds = 12000;
  EXPECT_EQ(verdict(), "") << "heard 135 s ago";
  link(lan_index).querier_left_centiseconds = 11800;
  EXPECT_EQ(verdict(), "the querier fe80::5 on br0 is silent: last heard 2 min 17 s ago");
}

TEST_F(check_judgement, source_specific_group_needs_a_source_when_nothing_arrives) {
  subject.group = entry.group = address("ff3e::1");
  shown.listeners.first[0].group = facts.memberships.first[0].group = facts.network.groups.first[0].group =
      subject.group;
  EXPECT_EQ(verdict(), "");
  facts.captures.first[0].arrived = 0;
  EXPECT_EQ(verdict(), "ff3e::1 needs a source, and the hosts name none, as MLDv1 hosts do (0 sources joined)");
}

TEST_F(check_judgement, membership_for_other_sources_does_not_cover_the_wanted_one) {
  add_row(facts.group_sources, group_source_row{upstream_index, subject.group, address("2001:db8::1"), 1, 0});
  subject.source = address("2001:db8::1");
  EXPECT_EQ(verdict(), "");
  subject.source = address("2001:db8::2");
  EXPECT_EQ(verdict(), "ff0e::1 is joined on wan0 for 2001:db8::1, not for 2001:db8::2");
}

TEST_F(check_judgement, entries_tell_the_sources_that_the_kernel_does_not_list) {
  entry.origin = address("2001:db8::1");
  subject.source = address("2001:db8::2");
  EXPECT_EQ(verdict(), "ff0e::1 is joined on wan0 for 2001:db8::1, not for 2001:db8::2");
  cache_row for_all = entry;
  for_all.origin = address("::");
  add_row(shown.streams, stream_row{stream_kind::wanted, &for_all, 0, 0});
  EXPECT_EQ(verdict(), "") << "somebody wants all sources";
}

TEST_F(check_judgement, hop_limit_1_is_told_and_2_is_enough) {
  facts.captures.first[0].least_hop_limit = 2;
  EXPECT_EQ(verdict(), "");
  facts.captures.first[0].least_hop_limit = 1;
  EXPECT_EQ(verdict(), "its packets arrive with hop limit 1, and a router does not forward them");
}

TEST_F(check_judgement, packets_that_wait_are_told) {
  entry.parent = -1;
  entry.origin = address("2001:db8::1");
  shown.streams.first[0].kind = stream_kind::unresolved;
  EXPECT_EQ(verdict(), "packets from 2001:db8::1 wait: the kernel has no entry that takes them");
}

TEST_F(check_judgement, half_of_the_packets_may_be_on_their_way) {
  facts.captures.first[1].sent = 50;
  EXPECT_EQ(verdict(), "");
  facts.captures.first[1].sent = 49;
  EXPECT_EQ(verdict(), "dropped after routing: br0 sent 49 of 100 packets");
}

TEST_F(check_judgement, port_with_the_group_has_to_send) {
  facts.captures.first[2].sent = 0;
  EXPECT_EQ(verdict(), "port lan-a has the group and sends 0 packets of it");
  link(port_index).port_state = BR_STATE_BLOCKING;
  EXPECT_EQ(verdict(), "port lan-a has the group and does not forward (bridge state 4)");
}

TEST_F(check_judgement, bridge_that_knows_a_querier_needs_a_port_with_the_group) {
  clear_rows(facts.network.groups);
  EXPECT_EQ(verdict(), "") << "it floods";
  link(lan_index).querier = address("fe80::5");
  EXPECT_EQ(verdict(), "bridge br0 knows querier fe80::5 and no port with the group: snooping keeps the stream from "
                       "hosts");
}

TEST_F(check_judgement, bridge_that_floods_needs_a_port_that_sends) {
  clear_rows(facts.network.groups);
  facts.captures.first[2].sent = 0;
  EXPECT_EQ(verdict(), "no port of bridge br0 sends the stream");
}

TEST_F(check_judgement, stream_that_leaves_is_not_called_dropped_by_the_firewall) {
  rules = R"({"nftables":[{"chain":{"family":"ip6","table":"t","name":"f","hook":"forward","policy":"drop"}}]})";
  EXPECT_EQ(verdict(), "");
  facts.captures.first[1].sent = 0;
  EXPECT_EQ(verdict(), "the firewall drops streams from wan0 to br0 after routing: ip6 t f");
}

TEST(check_kernel, missing_table_is_a_kernel_without_multicast_routing) {
  check_list list;
  check_kernel(list, {}, kernel_facts{});
  ASSERT_NE(verdict_of(list), nullptr);
  EXPECT_STREQ(cure_of(list, *verdict_of(list)), "use a kernel with CONFIG_IPV6_MROUTE");
  free_checks(list);
}

} // namespace

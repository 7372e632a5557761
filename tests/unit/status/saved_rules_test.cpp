// Rules as `ip6tables-save -c` prints them, and what they do with a packet.
#include "status/firewall_rules.h"
#include "status/saved_rules.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr test_packet report{"input",  "br0",       "",         "ipv6-icmp", "mld2-listener-report",
                             "hopopt", "untracked", "ff02::16", "fe80::1"};
constexpr test_packet stream{"forward", "wan0", "br0", "udp", "", "udp", "new", "ff0e::1", ""};

std::string table(const std::string &rules, const std::string &forward_policy = "ACCEPT") {
  return "# Generated\n*filter\n:INPUT ACCEPT [0:0]\n:FORWARD " + forward_policy + " [5:300]\n:lan - [0:0]\n" + rules +
         "COMMIT\n";
}

firewall_answer ask(const std::string &saved, const test_packet &packet, firewall_place &place) {
  text json;
  json_document document{};
  add_saved_rules(json, saved.c_str());
  EXPECT_TRUE(parse_json(document, text_of(json))) << text_of(json);
  const firewall_answer answer = ask_firewall(document, packet, place);
  free_rows(document.values);
  free_rows(json);
  return answer;
}

firewall_answer ask(const std::string &saved, const test_packet &packet) {
  firewall_place place{};
  return ask(saved, packet, place);
}

constexpr firewall_answer passes = firewall_answer::passes;
constexpr firewall_answer dropped = firewall_answer::dropped;
constexpr firewall_answer unclear = firewall_answer::unclear;

TEST(saved_rules, nothing_lets_everything_pass) { EXPECT_EQ(ask("", report), passes); }

TEST(saved_rules, rule_that_drops_is_named_with_its_counter) {
  firewall_place place{};
  EXPECT_EQ(ask(table("[12:960] -A INPUT -i br0 -p ipv6-icmp -m icmp6 --icmpv6-type 143 -j DROP\n"), report, place),
            dropped);
  EXPECT_STREQ(place.family.data(), SAVED_FAMILY);
  EXPECT_STREQ(place.table.data(), "filter");
  EXPECT_STREQ(place.chain.data(), "INPUT");
  EXPECT_EQ(place.packets, 12);
}

TEST(saved_rules, line_without_a_counter_is_a_rule_too) {
  EXPECT_EQ(ask(table("-A FORWARD -j REJECT --reject-with icmp6-port-unreachable\n"), stream), dropped);
}

TEST(saved_rules, policy_drops_what_no_rule_accepts) {
  EXPECT_EQ(ask(table("", "DROP"), stream), dropped);
  EXPECT_EQ(ask(table("", "DROP"), report), passes) << "another chain's policy";
  EXPECT_EQ(ask(table("[0:0] -A FORWARD -d ff00::/8 -j ACCEPT\n", "DROP"), stream), passes);
}

TEST(saved_rules, every_condition_of_a_rule_has_to_hold) {
  const auto drops = [](const std::string &conditions) {
    return ask(table("[0:0] -A FORWARD " + conditions + " -j DROP\n"), stream);
  };
  EXPECT_EQ(drops("-i wan0"), dropped);
  EXPECT_EQ(drops("-i wan1"), passes);
  EXPECT_EQ(drops("-i wan+"), dropped);
  EXPECT_EQ(drops("! -i wan0"), passes);
  EXPECT_EQ(drops("-i wan0 ! -o br0"), passes);
  EXPECT_EQ(drops("! -i lan0 -o br0"), dropped) << "the negation ends with its condition";
  EXPECT_EQ(drops("-d ff0e::1"), dropped);
  EXPECT_EQ(drops("-d ff0e::1/128"), dropped);
  EXPECT_EQ(drops("! -d ff00::/8"), passes);
  EXPECT_EQ(drops("-d ff00::/ff00::"), unclear);
  EXPECT_EQ(drops("-s 2001:db8::/32"), unclear) << "any source is wanted";
  EXPECT_EQ(drops("-p udp"), dropped);
  EXPECT_EQ(drops("-p 17"), dropped);
  EXPECT_EQ(drops("-p tcp"), passes);
  EXPECT_EQ(drops("-m conntrack --ctstate RELATED,NEW"), dropped);
  EXPECT_EQ(drops("-m state --state ESTABLISHED"), passes);
  EXPECT_EQ(drops("-m conntrack ! --ctstate INVALID"), dropped);
  EXPECT_EQ(drops("-m comment --comment \"a -j \\\" b\""), dropped);
  EXPECT_EQ(drops("-p udp -m multiport --dports 5004,5006"), unclear);
  EXPECT_EQ(drops("-m hl --hl-eq 1"), unclear);
}

TEST(saved_rules, type_of_mld_is_taken_by_its_number_with_or_without_a_code) {
  for (const char *type : {"143", "143/0"}) {
    EXPECT_EQ(ask(table(std::string{"-A INPUT -p icmpv6 -m icmp6 --icmpv6-type "} + type + " -j DROP\n"), report),
              dropped);
  }
  EXPECT_EQ(ask(table("-A INPUT -p 58 -m icmp6 --icmpv6-type 131 -j DROP\n"), report), passes);
}

TEST(saved_rules, chains_are_followed_and_other_targets_decide_nothing) {
  const std::string lan = "[0:0] -A lan -o br0 -j RETURN\n[0:0] -A lan -j DROP\n";
  EXPECT_EQ(ask(table(lan + "[0:0] -A FORWARD -j lan\n"), stream), passes);
  EXPECT_EQ(ask(table("[0:0] -A lan -j DROP\n[0:0] -A FORWARD -g lan\n"), stream), dropped);
  EXPECT_EQ(ask(table("[0:0] -A FORWARD -j LOG --log-prefix \"x \"\n", "DROP"), stream), dropped);
  EXPECT_EQ(ask(table("[0:0] -A FORWARD -j NFQUEUE --queue-num 0\n[0:0] -A FORWARD -j DROP\n"), stream), dropped);
}

TEST(saved_rules, stand_for_what_nft_shows_of_them_by_name_alone) {
  firewall_rules rules{};
  const char *nft = R"({"nftables":[{"chain":{"family":"ip6","table":"filter","name":"INPUT","hook":"input",)"
                    R"("policy":"accept"}},{"rule":{"family":"ip6","table":"filter","chain":"INPUT","expr":[)"
                    R"({"xt":{"type":"match","name":"icmp6"}},{"drop":null}]}}]})";
  ASSERT_TRUE(parse_json(rules.nft, nft));
  firewall_place place{};
  EXPECT_EQ(ask_rules(rules, report, place), unclear);
  add_saved_rules(rules.saved_text, table("-A INPUT -p ipv6-icmp -m icmp6 --icmpv6-type 131 -j DROP\n").c_str());
  ASSERT_TRUE(parse_json(rules.saved, text_of(rules.saved_text)));
  EXPECT_EQ(ask_rules(rules, report, place), passes);
  EXPECT_EQ(
      ask_rules(rules, {"input", "br0", "", "ipv6-icmp", "mld-listener-report", "hopopt", "untracked", "", ""}, place),
      dropped);
  free_rows(rules.nft.values);
  free_rows(rules.saved.values);
  free_rows(rules.saved_text);
}

TEST(saved_rules, text_that_is_cut_anywhere_gives_json) {
  const std::string whole = table("[12:960] -A INPUT -i \"b\\\"r\" -m conntrack ! --ctstate NEW -d ff00::/8 -j lan\n");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    ask(whole.substr(0, length), report);
  }
}

} // namespace

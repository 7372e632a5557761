// Rules as `nft -j list ruleset` prints them, and what they do with a packet.
#include "status/firewall.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr test_packet report{"input",  "br0",       "",         "ipv6-icmp", "mld2-listener-report",
                             "hopopt", "untracked", "ff02::16", "fe80::1"};
constexpr test_packet stream{"forward", "wan0", "br0", "udp", "", "udp", "new", "ff0e::1", ""};

std::string chain(const std::string &hook, const std::string &policy) {
  return R"({"chain":{"family":"inet","table":"fw","name":"c","handle":1,"type":"filter","hook":")" + hook +
         R"(","prio":0,"policy":")" + policy + R"("}},)";
}

std::string rule(const std::string &statements, const std::string &of_chain = "c") {
  return R"({"rule":{"family":"inet","table":"fw","chain":")" + of_chain + R"(","handle":7,"expr":[)" + statements +
         "]}},";
}

std::string match(const std::string &left, const std::string &right, const std::string &comparison = "==") {
  return R"({"match":{"op":")" + comparison + R"(","left":)" + left + R"(,"right":)" + right + "}},";
}

const std::string mld_type = R"({"payload":{"protocol":"icmpv6","field":"type"}})";
const std::string in_name = R"({"meta":{"key":"iifname"}})";
const std::string destination = R"({"payload":{"protocol":"ip6","field":"daddr"}})";
const std::string accept = R"({"accept":null})";
const std::string drop = R"({"drop":null})";

firewall_answer ask(const std::string &items, const test_packet &packet, firewall_place &place) {
  const std::string ruleset = R"({"nftables":[)" + items + R"({"metainfo":{}}]})";
  json_document document{};
  EXPECT_TRUE(parse_json(document, ruleset.c_str())) << ruleset;
  const firewall_answer answer = ask_firewall(document, packet, place);
  free_rows(document.values);
  return answer;
}

firewall_answer ask(const std::string &items, const test_packet &packet) {
  firewall_place place{};
  return ask(items, packet, place);
}

TEST(firewall, lets_everything_pass_without_rules) { EXPECT_EQ(ask("", report), firewall_answer::passes); }

TEST(firewall, policy_drops_what_no_rule_accepts) {
  firewall_place place{};
  EXPECT_EQ(ask(chain("input", "drop"), report, place), firewall_answer::dropped);
  EXPECT_STREQ(place.chain.data(), "c");
  EXPECT_EQ(place.handle, -1);
  EXPECT_EQ(ask(chain("forward", "drop"), report), firewall_answer::passes) << "another hook";
}

TEST(firewall, rule_that_drops_is_named_with_its_counter) {
  firewall_place place{};
  const std::string rules = chain("input", "accept") + rule(match(mld_type, R"("mld2-listener-report")") +
                                                            R"({"counter":{"packets":5,"bytes":500}},)" + drop);
  EXPECT_EQ(ask(rules, report, place), firewall_answer::dropped);
  EXPECT_EQ(place.handle, 7);
  EXPECT_EQ(place.packets, 5);
  EXPECT_STREQ(place.table.data(), "fw");
}

TEST(firewall, next_header_of_mld_is_the_hop_by_hop_header) {
  const std::string next = R"({"payload":{"protocol":"ip6","field":"nexthdr"}})";
  EXPECT_EQ(ask(chain("input", "drop") + rule(match(next, R"("ipv6-icmp")") + accept), report),
            firewall_answer::dropped);
  const std::string protocol = R"({"meta":{"key":"l4proto"}})";
  EXPECT_EQ(ask(chain("input", "drop") + rule(match(protocol, R"("ipv6-icmp")") + accept), report),
            firewall_answer::passes);
}

TEST(firewall, interface_names_may_end_with_any_rest) {
  EXPECT_EQ(ask(chain("input", "accept") + rule(match(in_name, R"("br*")") + drop), report), firewall_answer::dropped);
  EXPECT_EQ(ask(chain("input", "accept") + rule(match(in_name, R"("br*")", "!=") + drop), report),
            firewall_answer::passes);
  EXPECT_EQ(ask(chain("input", "accept") + rule(match(in_name, R"({"set":["lo","br0"]})") + drop), report),
            firewall_answer::dropped);
}

TEST(firewall, named_set_is_looked_up) {
  const std::string set =
      R"({"set":{"family":"inet","name":"s","table":"fw","elem":["mld-listener-query","mld2-listener-report"]}},)";
  EXPECT_EQ(ask(set + chain("input", "accept") + rule(match(mld_type, R"("@s")") + drop), report),
            firewall_answer::dropped);
}

TEST(firewall, prefix_of_the_group_is_compared) {
  const std::string multicast = match(destination, R"({"prefix":{"addr":"ff00::","len":8}})");
  const std::string other = match(destination, R"({"prefix":{"addr":"ff05::","len":16}})");
  EXPECT_EQ(ask(chain("forward", "drop") + rule(multicast + accept), stream), firewall_answer::passes);
  EXPECT_EQ(ask(chain("forward", "drop") + rule(other + accept), stream), firewall_answer::dropped);
}

TEST(firewall, chain_that_is_jumped_to_decides_or_returns) {
  const std::string jump = rule(R"({"jump":{"target":"other"}})");
  EXPECT_EQ(ask(chain("forward", "drop") + jump + rule(accept, "other"), stream), firewall_answer::passes);
  EXPECT_EQ(ask(chain("forward", "drop") + jump + rule(R"({"return":null})", "other"), stream),
            firewall_answer::dropped);
}

TEST(firewall, chains_that_jump_to_each_other_end) {
  EXPECT_EQ(ask(chain("forward", "drop") + rule(R"({"jump":{"target":"c"}})"), stream), firewall_answer::dropped);
}

TEST(firewall, state_map_lets_a_new_stream_pass) {
  const std::string map = R"({"vmap":{"key":{"ct":{"key":"state"}},"data":{"set":[["established",{"drop":null}],)"
                          R"(["new",{"accept":null}]]}}})";
  EXPECT_EQ(ask(chain("forward", "drop") + rule(map), stream), firewall_answer::passes);
}

TEST(firewall, condition_that_is_not_known_leaves_the_answer_open) {
  const std::string limit = R"({"limit":{"rate":10,"burst":5,"per":"second"}},)";
  EXPECT_EQ(ask(chain("forward", "drop") + rule(limit + accept), stream), firewall_answer::unclear);
  EXPECT_EQ(ask(chain("forward", "accept") + rule(limit + drop), stream), firewall_answer::unclear);
  EXPECT_EQ(ask(chain("forward", "accept") + rule(limit + accept), stream), firewall_answer::passes);
}

TEST(firewall, rule_for_another_protocol_does_not_hold) {
  const std::string tcp = match(R"({"payload":{"protocol":"tcp","field":"dport"}})", "22");
  EXPECT_EQ(ask(chain("forward", "accept") + rule(tcp + drop), stream), firewall_answer::passes);
}

TEST(json, text_that_is_not_json_is_refused) {
  const std::string deep(100, '[');
  for (const char *wrong : {"", "{", "[1,", "{\"a\" 1}", "{1:2}", "\"open", "[1] 2", "[1 2]", deep.c_str()}) {
    json_document document{};
    EXPECT_FALSE(parse_json(document, wrong)) << wrong;
    free_rows(document.values);
  }
}

TEST(json, members_are_found_whatever_stands_before_them) {
  json_document document{};
  ASSERT_TRUE(parse_json(document, R"({"a":{"x":[1,2,{}]},"b":"quote \" here","c":-1.5e3})"));
  EXPECT_EQ(text_in(document, member_of(document, 0, "b")), "quote \\\" here");
  EXPECT_EQ(text_in(document, member_of(document, 0, "c")), "-1.5e3");
  EXPECT_EQ(member_of(document, 0, "x"), NO_VALUE);
  EXPECT_EQ(member_of(document, member_of(document, 0, "b"), "a"), NO_VALUE);
  free_rows(document.values);
}

} // namespace

#include "status/firewall.h"

#include "status/rule_match.h"
#include "status/saved_rules.h"

#include <algorithm>

namespace {

constexpr int deepest_jump = 16; // NFT_JUMP_STACK_SIZE of linux/netfilter/nf_tables.h

enum class verdict { none, accept, drop, back };

// One walk through the chains of a hook.
struct walk {
  const json_document &rules;
  const test_packet &packet;
  firewall_place &place;
  bool may_pass; // a rule accepts under a condition that is not known
  bool may_drop;
};

void copy_text(rule_text &copy, std::string_view original) {
  const std::size_t length = std::min(original.size(), copy.size() - 1);
  std::memcpy(copy.data(), original.data(), length);
  copy[length] = '\0';
}

long long number_of(const json_document &rules, std::uint32_t value) {
  const std::string_view digits = text_in(rules, value);
  return digits.empty() ? -1 : std::atoll(digits.data());
}

void note_place(walk &walk, std::uint32_t chain, std::uint32_t name) {
  copy_text(walk.place.family, text_in(walk.rules, member_of(walk.rules, chain, "family")));
  copy_text(walk.place.table, text_in(walk.rules, member_of(walk.rules, chain, "table")));
  copy_text(walk.place.chain, text_in(walk.rules, name));
  walk.place.handle = -1;
  walk.place.packets = -1;
}

void note_rule(walk &walk, std::uint32_t rule) {
  note_place(walk, rule, member_of(walk.rules, rule, "chain"));
  walk.place.handle = number_of(walk.rules, member_of(walk.rules, rule, "handle"));
  const std::uint32_t statements = member_of(walk.rules, rule, "expr");
  for (std::uint32_t statement = first_in(walk.rules, statements); statement != NO_VALUE;
       statement = next_in(walk.rules, statements, statement)) {
    const std::uint32_t counter = member_of(walk.rules, statement, "counter");
    if (counter != NO_VALUE) {
      walk.place.packets = number_of(walk.rules, member_of(walk.rules, counter, "packets"));
    }
  }
}

bool is_in_same_table(const json_document &rules, std::uint32_t left, std::uint32_t right) {
  return text_in(rules, member_of(rules, left, "family")) == text_in(rules, member_of(rules, right, "family")) &&
         text_in(rules, member_of(rules, left, "table")) == text_in(rules, member_of(rules, right, "table"));
}

verdict walk_chain(walk &walk, std::uint32_t table, std::string_view chain, int depth);

// A verdict statement, with what it means here: the chain that it jumps to has been walked.
verdict take_verdict(walk &walk, std::uint32_t rule, std::uint32_t statement, int depth) {
  const json_document &rules = walk.rules;
  if (member_of(rules, statement, "accept") != NO_VALUE) {
    return verdict::accept;
  }
  if (member_of(rules, statement, "drop") != NO_VALUE || member_of(rules, statement, "reject") != NO_VALUE) {
    note_rule(walk, rule);
    return verdict::drop;
  }
  if (member_of(rules, statement, "return") != NO_VALUE) {
    return verdict::back;
  }
  const std::uint32_t jump = member_of(rules, statement, "jump");
  const std::uint32_t target = jump != NO_VALUE ? jump : member_of(rules, statement, "goto");
  if (target == NO_VALUE) {
    return verdict::none;
  }
  const verdict inside = walk_chain(walk, rule, text_in(rules, member_of(rules, target, "target")), depth + 1);
  if (inside == verdict::accept || inside == verdict::drop) {
    return inside;
  }
  return jump != NO_VALUE ? verdict::none : verdict::back;
}

// Pairs of a value and a verdict; the first that holds counts.
verdict take_verdict_map(walk &walk, std::uint32_t rule, std::uint32_t map, rule_match &holds, int depth) {
  const json_document &rules = walk.rules;
  const std::uint32_t pairs = member_of(rules, member_of(rules, map, "data"), "set");
  for (std::uint32_t pair = first_in(rules, pairs); pair != NO_VALUE; pair = next_in(rules, pairs, pair)) {
    const std::uint32_t key = first_in(rules, pair);
    const rule_match is_key = key == NO_VALUE
                                  ? rule_match::unclear
                                  : match_values(rules, member_of(rules, map, "key"), key, rule, walk.packet);
    if (is_key != rule_match::no) {
      holds = is_key == rule_match::unclear ? rule_match::unclear : holds;
      return take_verdict(walk, rule, next_in(rules, pair, key), depth);
    }
  }
  if (pairs == NO_VALUE) {
    holds = rule_match::unclear;
  }
  return verdict::none;
}

// What a rule decides; `holds` says whether it applies at all.
verdict walk_rule(walk &walk, std::uint32_t rule, rule_match &holds, int depth) {
  const json_document &rules = walk.rules;
  const std::uint32_t statements = member_of(rules, rule, "expr");
  holds = rule_match::yes;
  for (std::uint32_t statement = first_in(rules, statements); statement != NO_VALUE && holds != rule_match::no;
       statement = next_in(rules, statements, statement)) {
    const std::uint32_t match = member_of(rules, statement, "match");
    const std::uint32_t map = member_of(rules, statement, "vmap");
    verdict taken = verdict::none;
    if (match != NO_VALUE) {
      holds = std::max(holds, match_statement(rules, match, rule, walk.packet));
    } else if (map != NO_VALUE) {
      taken = take_verdict_map(walk, rule, map, holds, depth);
    } else if (is_condition(rules, statement)) {
      holds = rule_match::unclear;
    } else {
      taken = take_verdict(walk, rule, statement, depth);
    }
    if (taken != verdict::none) {
      return taken;
    }
  }
  return verdict::none;
}

// A verdict under a condition that is not known is noted, and the walk goes on as if it did not hold.
verdict walk_chain(walk &walk, std::uint32_t table, std::string_view chain, int depth) {
  const json_document &rules = walk.rules;
  const std::uint32_t items = member_of(rules, 0, "nftables");
  if (depth > deepest_jump) {
    return verdict::none;
  }
  for (std::uint32_t item = first_in(rules, items); item != NO_VALUE; item = next_in(rules, items, item)) {
    const std::uint32_t rule = member_of(rules, item, "rule");
    if (rule == NO_VALUE || !is_in_same_table(rules, rule, table) ||
        text_in(rules, member_of(rules, rule, "chain")) != chain) {
      continue;
    }
    rule_match holds = rule_match::yes;
    const verdict taken = walk_rule(walk, rule, holds, depth);
    if (taken != verdict::none && holds == rule_match::yes) {
      return taken;
    }
    const bool is_unclear = taken != verdict::none && holds == rule_match::unclear;
    walk.may_pass = walk.may_pass || (is_unclear && taken != verdict::drop);
    walk.may_drop = walk.may_drop || (is_unclear && taken != verdict::accept);
  }
  return verdict::none;
}

bool is_base_chain(const json_document &rules, std::uint32_t chain, const char *hook) {
  const std::string_view family = text_in(rules, member_of(rules, chain, "family"));
  return (family == "ip6" || family == "inet" || family == SAVED_FAMILY) &&
         text_in(rules, member_of(rules, chain, "hook")) == hook;
}

// Whether `others` has the chain too, under the family that means ip6.
bool is_chain_of(const json_document *others, const json_document &rules, std::uint32_t chain) {
  if (others == nullptr || text_in(rules, member_of(rules, chain, "family")) != "ip6") {
    return false;
  }
  const std::uint32_t items = member_of(*others, 0, "nftables");
  for (std::uint32_t item = first_in(*others, items); item != NO_VALUE; item = next_in(*others, items, item)) {
    const std::uint32_t other = member_of(*others, item, "chain");
    if (other != NO_VALUE &&
        text_in(*others, member_of(*others, other, "table")) == text_in(rules, member_of(rules, chain, "table")) &&
        text_in(*others, member_of(*others, other, "name")) == text_in(rules, member_of(rules, chain, "name"))) {
      return true;
    }
  }
  return false;
}

firewall_answer ask_chain(const json_document &rules, std::uint32_t chain, const test_packet &packet,
                          firewall_place &place) {
  walk walk{rules, packet, place, false, false};
  const std::uint32_t name = member_of(rules, chain, "name");
  verdict taken = walk_chain(walk, chain, text_in(rules, name), 0);
  if (taken != verdict::accept && taken != verdict::drop) {
    taken = verdict::accept;
    if (text_in(rules, member_of(rules, chain, "policy")) == "drop") {
      taken = verdict::drop;
      note_place(walk, chain, name);
    }
  }
  if (taken == verdict::drop) {
    return walk.may_pass ? firewall_answer::unclear : firewall_answer::dropped;
  }
  return walk.may_drop ? firewall_answer::unclear : firewall_answer::passes;
}

} // namespace

firewall_answer ask_firewall(const json_document &ruleset, const test_packet &packet, firewall_place &place,
                             const json_document *others) {
  firewall_answer answer = firewall_answer::passes;
  const std::uint32_t items = member_of(ruleset, 0, "nftables");
  for (std::uint32_t item = first_in(ruleset, items); item != NO_VALUE; item = next_in(ruleset, items, item)) {
    const std::uint32_t chain = member_of(ruleset, item, "chain");
    if (chain == NO_VALUE || !is_base_chain(ruleset, chain, packet.hook) || is_chain_of(others, ruleset, chain)) {
      continue;
    }
    const firewall_answer of_chain = ask_chain(ruleset, chain, packet, place);
    if (of_chain == firewall_answer::dropped) {
      return of_chain;
    }
    answer = of_chain == firewall_answer::unclear ? of_chain : answer;
  }
  return answer;
}

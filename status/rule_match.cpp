#include "status/rule_match.h"

#include "core/text_part.h"

#include <arpa/inet.h>
#include <charconv>

namespace {

// What a rule looks at, of this packet.
struct packet_field {
  rule_match is_known; // no: the packet has no such field, so that no comparison holds
  std::string_view value;
  bool is_name;    // of an interface: "*" at the end of a comparison matches any rest
  bool is_address; // a prefix may be compared
};

packet_field known(const char *value) { return {rule_match::yes, value, false, false}; }
packet_field unclear() { return {rule_match::unclear, {}, false, false}; }
packet_field absent() { return {rule_match::no, {}, false, false}; }

packet_field interface_name(const char *name) { return {rule_match::yes, name, true, false}; }

packet_field address(const char *text) {
  return *text == '\0' ? unclear() : packet_field{rule_match::yes, text, false, true};
}

packet_field meta_field(std::string_view key, const test_packet &packet) {
  if (key == "iifname" || key == "iif") {
    return interface_name(packet.in);
  }
  if (key == "oifname" || key == "oif") {
    return interface_name(packet.out);
  }
  if (key == "l4proto") {
    return known(packet.protocol);
  }
  if (key == "nfproto") {
    return known("ipv6");
  }
  if (key == "protocol") {
    return known("ip6");
  }
  return key == "pkttype" ? known("multicast") : unclear();
}

packet_field payload_field(std::string_view protocol, std::string_view field, const test_packet &packet) {
  if (protocol == "ip6") {
    if (field == "nexthdr") {
      return known(packet.next);
    }
    return field == "daddr" ? address(packet.group) : field == "saddr" ? address(packet.source) : unclear();
  }
  if (protocol == "icmpv6") {
    if (packet.icmp_type[0] == '\0') {
      return absent();
    }
    return field == "type" ? known(packet.icmp_type) : unclear();
  }
  if (protocol == "udp" && std::string_view{packet.protocol} == "udp") {
    return unclear();
  }
  return protocol == "th" || protocol == "ether" || protocol.empty() ? unclear() : absent();
}

packet_field field_of(const json_document &rules, std::uint32_t left, const test_packet &packet) {
  const std::uint32_t meta = member_of(rules, left, "meta");
  const std::uint32_t payload = member_of(rules, left, "payload");
  const std::uint32_t connection = member_of(rules, left, "ct");
  if (meta != NO_VALUE) {
    return meta_field(text_in(rules, member_of(rules, meta, "key")), packet);
  }
  if (payload != NO_VALUE) {
    return payload_field(text_in(rules, member_of(rules, payload, "protocol")),
                         text_in(rules, member_of(rules, payload, "field")), packet);
  }
  if (connection != NO_VALUE && text_in(rules, member_of(rules, connection, "key")) == "state") {
    return known(packet.state);
  }
  return unclear();
}

rule_match match_if(bool holds) { return holds ? rule_match::yes : rule_match::no; }

bool to_address(in6_addr &address, std::string_view text) {
  std::array<char, INET6_ADDRSTRLEN> copy{};
  if (text.size() >= copy.size()) {
    return false;
  }
  std::memcpy(copy.data(), text.data(), text.size());
  return inet_pton(AF_INET6, copy.data(), &address) == 1;
}

rule_match match_prefix(const packet_field &field, std::string_view prefix, std::string_view length) {
  constexpr unsigned bits_per_byte = 8;
  constexpr unsigned most_bits = 128;
  in6_addr wanted;
  in6_addr own;
  unsigned bits = 0;
  if (!field.is_address || !to_address(wanted, prefix) || !to_address(own, field.value) ||
      std::from_chars(length.data(), length.data() + length.size(), bits).ec != std::errc{} || bits > most_bits) {
    return rule_match::unclear;
  }
  for (unsigned bit = 0; bit < bits; ++bit) {
    const unsigned mask = 0x80U >> bit % bits_per_byte;
    if (((wanted.s6_addr[bit / bits_per_byte] ^ own.s6_addr[bit / bits_per_byte]) & mask) != 0) {
      return rule_match::no;
    }
  }
  return rule_match::yes;
}

rule_match match_text(const packet_field &field, std::string_view wanted) {
  if (field.is_name && !wanted.empty() && wanted.back() == '*') {
    wanted.remove_suffix(1);
    return match_if(field.value.starts_with(wanted));
  }
  if (field.is_address) {
    return match_prefix(field, wanted, "128");
  }
  return match_if(field.value == wanted);
}

// The elements of a named set of the rule's table; NO_VALUE if there is none, or it is empty.
std::uint32_t elements_of_set(const json_document &rules, std::string_view name, std::uint32_t rule) {
  const std::uint32_t items = member_of(rules, 0, "nftables");
  for (std::uint32_t item = first_in(rules, items); item != NO_VALUE; item = next_in(rules, items, item)) {
    const std::uint32_t set = member_of(rules, item, "set");
    if (text_in(rules, member_of(rules, set, "name")) == name &&
        text_in(rules, member_of(rules, set, "table")) == text_in(rules, member_of(rules, rule, "table")) &&
        text_in(rules, member_of(rules, set, "family")) == text_in(rules, member_of(rules, rule, "family"))) {
      return member_of(rules, set, "elem");
    }
  }
  return NO_VALUE;
}

rule_match match_right(const json_document &rules, const packet_field &field, std::uint32_t right, std::uint32_t rule);

rule_match match_any(const json_document &rules, const packet_field &field, std::uint32_t list, std::uint32_t rule) {
  rule_match best = rule_match::no;
  for (std::uint32_t element = first_in(rules, list); element != NO_VALUE; element = next_in(rules, list, element)) {
    best = std::min(best, match_right(rules, field, element, rule));
  }
  return best;
}

rule_match match_right(const json_document &rules, const packet_field &field, std::uint32_t right, std::uint32_t rule) {
  if (is_kind(rules, right, json_kind::array)) {
    return match_any(rules, field, right, rule);
  }
  if (const std::uint32_t set = member_of(rules, right, "set"); set != NO_VALUE) {
    return is_kind(rules, set, json_kind::array) ? match_any(rules, field, set, rule)
                                                 : match_right(rules, field, set, rule);
  }
  if (const std::uint32_t prefix = member_of(rules, right, "prefix"); prefix != NO_VALUE) {
    return match_prefix(field, text_in(rules, member_of(rules, prefix, "addr")),
                        text_in(rules, member_of(rules, prefix, "len")));
  }
  const std::string_view text = text_in(rules, right);
  if (text.empty()) {
    return is_kind(rules, right, json_kind::string) ? match_text(field, text) : rule_match::unclear;
  }
  return text.front() == '@'
             ? match_any(rules, field, elements_of_set(rules, {text.data() + 1, text.size() - 1}, rule), rule)
             : match_text(field, text);
}

} // namespace

rule_match match_values(const json_document &rules, std::uint32_t left, std::uint32_t right, std::uint32_t rule,
                        const test_packet &packet) {
  const packet_field field = field_of(rules, left, packet);
  return field.is_known == rule_match::yes ? match_right(rules, field, right, rule) : field.is_known;
}

rule_match match_statement(const json_document &rules, std::uint32_t match, std::uint32_t rule,
                           const test_packet &packet) {
  const std::uint32_t left = member_of(rules, match, "left");
  const packet_field field = field_of(rules, left, packet);
  if (field.is_known != rule_match::yes) {
    return field.is_known;
  }
  const rule_match holds = match_right(rules, field, member_of(rules, match, "right"), rule);
  const std::string_view comparison = text_in(rules, member_of(rules, match, "op"));
  if (comparison == "!=") {
    return holds == rule_match::unclear ? holds : match_if(holds == rule_match::no);
  }
  return comparison == "==" || comparison == "in" ? holds : rule_match::unclear;
}

bool is_condition(const json_document &rules, std::uint32_t statement) {
  constexpr std::array<std::string_view, 5> conditions{"limit", "quota", "ct count", "xt", "queue"};
  for (const std::string_view condition : conditions) {
    if (member_of(rules, statement, condition) != NO_VALUE) {
      return true;
    }
  }
  return false;
}

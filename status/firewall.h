// What the firewall does with one kind of packet, by the rules that `nft -j list ruleset` prints
// (libnftables-json(5)). The rules are traced; no packet is sent.
#pragma once

#include "status/json_reader.h"
#include "status/state_files.h"

// A packet as the rules see it. MLD carries an extension header and is not tracked; the first packet of a stream is
// new.
struct test_packet {
  const char *hook;      // "input" or "forward"
  const char *in;        // interface
  const char *out;       // interface; "" at the input
  const char *protocol;  // "ipv6-icmp" or "udp"
  const char *icmp_type; // "mld2-listener-report", ...; "" for UDP
  const char *next;      // next header of the IPv6 header: "hopopt" or "udp"
  const char *state;     // of the connection: "untracked" or "new"
  const char *group;     // destination
  const char *source;    // "" where it may be any
};

enum class firewall_answer {
  passes,
  dropped,
  unclear // depends on something that is not known here
};

using rule_text = std::array<char, 64>;

// Where a packet was dropped.
struct firewall_place {
  rule_text family;
  rule_text table;
  rule_text chain;
  long long handle;  // of the rule; -1: the chain's policy
  long long packets; // its counter; -1: it has none
};

// `others`: rules in which chains of family ip6 are looked at instead, where they have them.
firewall_answer ask_firewall(const json_document &ruleset, const test_packet &packet, firewall_place &place,
                             const json_document *others = nullptr);

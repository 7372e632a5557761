// Whether a condition of a firewall rule holds for a packet.
#pragma once

#include "status/firewall.h"

// In this order: what two conditions say together is the greater one.
enum class rule_match { yes, unclear, no };

// A "match" statement. `rule` names the table in which named sets are looked up.
rule_match match_statement(const json_document &rules, std::uint32_t match, std::uint32_t rule,
                           const test_packet &packet);

// Whether the packet's field that `left` names is `right`: a value, a range, a prefix, a list or a set.
rule_match match_values(const json_document &rules, std::uint32_t left, std::uint32_t right, std::uint32_t rule,
                        const test_packet &packet);

// Whether a statement other than "match" may keep the rule from holding: a limit, a lookup, an extension.
bool is_condition(const json_document &rules, std::uint32_t statement);

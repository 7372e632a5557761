// The rules of nft and of ip6tables together.
#pragma once

#include "status/firewall.h"

struct firewall_rules {
  text nft_text;
  json_document nft; // of `nft_text`
  text saved_text;
  json_document saved; // of `saved_text`: those of ip6tables, where nft does not show them or not in full
  bool is_read;        // the firewall could be asked
};

// Runs nft, and ip6tables-save where needed, in the calling process's network namespace.
void read_firewall_rules(firewall_rules &rules);

firewall_answer ask_rules(const firewall_rules &rules, const test_packet &packet, firewall_place &place);

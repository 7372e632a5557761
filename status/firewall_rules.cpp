#include "status/firewall_rules.h"

#include "status/saved_rules.h"

#include <array>
#include <cstdio>

namespace {

// With a fixed PATH: programs in the caller's PATH are not run.
constexpr char nft_command[] = "PATH=/usr/sbin:/sbin:/usr/bin:/bin exec nft -j list ruleset 2>/dev/null";
// Both kinds of ip6tables may have rules. Where one program serves both, its rules come twice, which changes nothing.
constexpr char save_command[] = "PATH=/usr/sbin:/sbin:/usr/bin:/bin; unset read; ip6tables-legacy-save -c 2>/dev/null "
                                "&& read=1; ip6tables-save -c 2>/dev/null && read=1; [ -n \"$read\" ]";

bool read_output(text &output, const char *command) {
  clear_rows(output);
  FILE *program = popen(command, "re");
  if (program == nullptr) {
    return false;
  }
  std::array<char, 4096> piece;
  for (std::size_t got = 1; got > 0;) {
    got = std::fread(piece.data(), 1, piece.size(), program);
    add_bytes(output, piece.data(), got);
  }
  return pclose(program) == 0;
}

// The kernel lists its tables here while ip6tables' older kind has any (net/ipv6/netfilter/ip6_tables.c).
bool has_legacy_tables() {
  text names;
  const bool has_any = read_file(names, "/proc/self/net/ip6_tables_names") && names.count > 0;
  free_rows(names);
  return has_any;
}

bool read_saved(firewall_rules &rules) {
  text output;
  const bool is_read = read_output(output, save_command);
  if (is_read) {
    add_saved_rules(rules.saved_text, text_of(output));
  }
  free_rows(output);
  return is_read && parse_json(rules.saved, text_of(rules.saved_text));
}

} // namespace

void read_firewall_rules(firewall_rules &rules) {
  clear_rows(rules.saved_text);
  clear_rows(rules.saved.values);
  const bool has_nft = read_output(rules.nft_text, nft_command) && parse_json(rules.nft, text_of(rules.nft_text));
  if (!has_nft) {
    clear_rows(rules.nft.values);
  }
  // nft shows the extensions that rules of ip6tables use by their names alone.
  const bool is_in_full = has_nft && std::strstr(text_of(rules.nft_text), "\"xt\"") == nullptr && !has_legacy_tables();
  rules.is_read = is_in_full || read_saved(rules) || has_nft;
}

firewall_answer ask_rules(const firewall_rules &rules, const test_packet &packet, firewall_place &place) {
  const firewall_answer by_nft = ask_firewall(rules.nft, packet, place, &rules.saved);
  if (by_nft == firewall_answer::dropped) {
    return by_nft;
  }
  const firewall_answer by_saved = ask_firewall(rules.saved, packet, place);
  return by_saved == firewall_answer::passes ? by_nft : by_saved;
}

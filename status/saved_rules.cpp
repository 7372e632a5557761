#include "status/saved_rules.h"

#include "status/json_text.h"
#include "status/lines.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <string_view>

namespace {

using word_text = std::array<char, 128>;

// One line under translation.
struct saved_line {
  const char *rest;
  word_text word; // the newest one, without its quotes
  bool is_not;    // a "!" came before it
  text statements;
};

// Words are separated by blanks, or in double quotes with backslashes.
bool next_word(saved_line &line) {
  line.rest += std::strspn(line.rest, " ");
  if (*line.rest == '\0') {
    return false;
  }
  const bool is_quoted = *line.rest == '"';
  line.rest += is_quoted ? 1 : 0;
  std::size_t length = 0;
  for (; *line.rest != '\0' && *line.rest != (is_quoted ? '"' : ' '); ++line.rest) {
    if (is_quoted && *line.rest == '\\' && line.rest[1] != '\0') {
      ++line.rest;
    }
    if (length + 1 < line.word.size()) {
      line.word[length++] = *line.rest;
    }
  }
  line.word[length] = '\0';
  line.rest += is_quoted && *line.rest == '"' ? 1 : 0;
  return true;
}

void add_statement(saved_line &line, const char *statement) {
  add_text(line.statements, "%s%s", line.statements.count > 0 ? "," : "", statement);
}

void add_unknown_condition(saved_line &line) { add_statement(line, R"({"xt":null})"); }

// "left" is what nft writes for the field.
void begin_match(saved_line &line, const char *left) {
  add_statement(line, R"({"match":{"op":")");
  add_text(line.statements, R"(%s","left":%s,"right":)", line.is_not ? "!=" : "==", left);
}

void end_match(saved_line &line) { add_text(line.statements, "}}"); }

void add_word_match(saved_line &line, const char *left, const char *value) {
  begin_match(line, left);
  add_json_text(line.statements, value);
  end_match(line);
}

// "+" at the end matches any rest, as "*" does for nft.
void add_interface_match(saved_line &line, const char *left) {
  const std::size_t length = std::strlen(line.word.data());
  if (length > 0 && line.word[length - 1] == '+') {
    line.word[length - 1] = '*';
  }
  add_word_match(line, left, line.word.data());
}

// "ff00::/8", or an address alone. A mask that is not a prefix is not judged.
void add_address_match(saved_line &line, const char *left) {
  char *slash = std::strchr(line.word.data(), '/');
  if (slash == nullptr) {
    add_word_match(line, left, line.word.data());
    return;
  }
  *slash = '\0';
  const char *length = slash + 1;
  if (*length == '\0' || std::strspn(length, "0123456789") != std::strlen(length)) {
    add_unknown_condition(line);
    return;
  }
  begin_match(line, left);
  add_text(line.statements, R"({"prefix":{"addr":)");
  add_json_text(line.statements, line.word.data());
  add_text(line.statements, R"(,"len":%s}})", length);
  end_match(line);
}

struct name_pair {
  std::string_view saved;
  const char *nft;
};

template <std::size_t count> const char *translated(const std::array<name_pair, count> &names, const char *word) {
  const auto *found =
      std::find_if(names.begin(), names.end(), [&](const name_pair &pair) { return pair.saved == word; });
  return found == names.end() ? word : found->nft;
}

constexpr std::array<name_pair, 4> protocols{
    {{"icmpv6", "ipv6-icmp"}, {"58", "ipv6-icmp"}, {"17", "udp"}, {"6", "tcp"}}};

// RFC 2710 and RFC 3810.
constexpr std::array<name_pair, 4> icmp_types{{{"130", "mld-listener-query"},
                                               {"131", "mld-listener-report"},
                                               {"132", "mld-listener-done"},
                                               {"143", "mld2-listener-report"}}};

// "143" or "143/0", a type with its code: MLD's code is 0.
void add_icmp_match(saved_line &line) {
  if (char *slash = std::strchr(line.word.data(), '/'); slash != nullptr) {
    *slash = '\0';
  }
  add_word_match(line, R"({"payload":{"protocol":"icmpv6","field":"type"}})", translated(icmp_types, line.word.data()));
}

void add_state_match(saved_line &line) {
  std::transform(line.word.begin(), line.word.end(), line.word.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  begin_match(line, R"({"ct":{"key":"state"}})");
  const char *separator = "[";
  for (char *state = line.word.data(); state != nullptr;) {
    char *comma = std::strchr(state, ',');
    if (comma != nullptr) {
      *comma = '\0';
    }
    add_text(line.statements, "%s", separator);
    add_json_text(line.statements, state);
    separator = ",";
    state = comma != nullptr ? comma + 1 : nullptr;
  }
  add_text(line.statements, "]");
  end_match(line);
}

// What follows a target are its own options.
void add_target(saved_line &line, const char *kind) {
  constexpr std::array<std::string_view, 4> verdicts{"ACCEPT", "DROP", "REJECT", "RETURN"};
  constexpr std::array<const char *, 4> statements{R"({"accept":null})", R"({"drop":null})", R"({"reject":null})",
                                                   R"({"return":null})"};
  constexpr std::array<std::string_view, 2> queues{"QUEUE", "NFQUEUE"};
  const std::string_view target = line.word.data();
  const auto *verdict = std::find(verdicts.begin(), verdicts.end(), target);
  if (verdict != verdicts.end()) {
    add_statement(line, statements[static_cast<std::size_t>(verdict - verdicts.begin())]);
  } else if (std::find(queues.begin(), queues.end(), target) != queues.end()) {
    add_statement(line, R"({"queue":null})");
  } else { // a chain, or a target that decides nothing, such as LOG or MARK: there is no chain of its name
    add_statement(line, "{\"");
    add_text(line.statements, R"(%s":{"target":)", kind);
    add_json_text(line.statements, line.word.data());
    add_text(line.statements, "}}");
  }
  line.rest += std::strlen(line.rest);
}

// An option with its value in `line.word`.
void add_condition(saved_line &line, std::string_view option) {
  if (option == "-i") {
    add_interface_match(line, R"({"meta":{"key":"iifname"}})");
  } else if (option == "-o") {
    add_interface_match(line, R"({"meta":{"key":"oifname"}})");
  } else if (option == "-s") {
    add_address_match(line, R"({"payload":{"protocol":"ip6","field":"saddr"}})");
  } else if (option == "-d") {
    add_address_match(line, R"({"payload":{"protocol":"ip6","field":"daddr"}})");
  } else if (option == "-p") {
    add_word_match(line, R"({"meta":{"key":"l4proto"}})", translated(protocols, line.word.data()));
  } else if (option == "--icmpv6-type") {
    add_icmp_match(line);
  } else if (option == "--ctstate" || option == "--state") {
    add_state_match(line);
  }
}

bool takes_known_value(std::string_view option) {
  constexpr std::array<std::string_view, 10> known{"-i",        "-o",      "-s", "-d",       "-p", "--icmpv6-type",
                                                   "--ctstate", "--state", "-m", "--comment"};
  return std::find(known.begin(), known.end(), option) != known.end();
}

// `line.rest` begins after the chain's name.
void translate_rule(saved_line &line) {
  line.is_not = false;
  while (next_word(line)) {
    const word_text option = line.word;
    const std::string_view name = option.data();
    if (name == "!") {
      line.is_not = true;
      continue;
    }
    if (name == "-j" || name == "-g") {
      if (next_word(line)) {
        add_target(line, name == "-j" ? "jump" : "goto");
      }
    } else if (takes_known_value(name)) {
      if (next_word(line)) {
        add_condition(line, name);
      }
    } else if (name.starts_with("-")) {
      add_unknown_condition(line);
    }
    line.is_not = false;
  }
}

void begin_item(text &json, const char *kind, const char *table) {
  add_text(json, R"(%s{"%s":{"family":"%s","table":)", json.first[json.count - 1] == '[' ? "" : ",", kind,
           SAVED_FAMILY);
  add_json_text(json, table);
}

// ":FORWARD DROP [0:0]"
void add_chain(text &json, const char *table, const char *written) {
  constexpr std::array<name_pair, 2> hooks{{{"INPUT", "input"}, {"FORWARD", "forward"}}};
  saved_line line{written, {}, false, {}};
  if (!next_word(line)) {
    return;
  }
  const word_text name = line.word;
  const char *hook = translated(hooks, name.data());
  begin_item(json, "chain", table);
  add_text(json, R"(,"name":)");
  add_json_text(json, name.data());
  if (hook != name.data() && next_word(line)) {
    add_text(json, R"(,"hook":"%s","policy":"%s")", hook,
             std::string_view{line.word.data()} == "DROP" ? "drop" : "accept");
  }
  add_text(json, "}}");
}

// "[12:960] -A FORWARD -i wan0 -j DROP"; the counter may be missing.
void add_rule(text &json, const char *table, const char *written) {
  unsigned long long packets = 0;
  const bool has_counter = std::sscanf(written, "[%llu:", &packets) == 1;
  saved_line line{written, {}, false, {}};
  if ((has_counter && !next_word(line)) || !next_word(line) || !next_word(line)) {
    return;
  }
  begin_item(json, "rule", table);
  add_text(json, R"(,"chain":)");
  add_json_text(json, line.word.data());
  if (has_counter) {
    add_text(line.statements, R"({"counter":{"packets":%llu}})", packets);
  }
  translate_rule(line);
  add_text(json, R"(,"expr":[%s]}})", text_of(line.statements));
  free_rows(line.statements);
}

} // namespace

void add_saved_rules(text &json, const char *saved) {
  word_text table{};
  line_buffer line;
  add_text(json, R"({"nftables":[)");
  while (next_line(line, saved)) {
    if (line[0] == '*') {
      std::snprintf(table.data(), table.size(), "%.*s", static_cast<int>(table.size() - 1), line.data() + 1);
    } else if (line[0] == ':') {
      add_chain(json, table.data(), line.data() + 1);
    } else if (std::strncmp(line.data(), "-A ", 3) == 0 || std::strstr(line.data(), "] -A ") != nullptr) {
      add_rule(json, table.data(), line.data());
    }
  }
  add_text(json, "]}");
}

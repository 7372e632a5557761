#include "status/check_output.h"

#include "status/check_hosts.h"
#include "status/saved_rules.h"

#include <algorithm>
#include <linux/if.h>
#include <linux/if_bridge.h>

namespace {

constexpr char place[] = "output";
constexpr char some_group[] = "ff0e::1"; // of global scope, where no group is wanted

const link_row *upstream_link(const check_subject &subject, const path_facts &facts) {
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    if (row.is_upstream) {
      return find_link(facts.network, row.counters.name.data());
    }
  }
  return nullptr;
}

void say_dropped(check_list &list, const char *upstream, const char *lan, const firewall_place &where) {
  text counter;
  if (where.packets >= 0) {
    add_text(counter, ", %lld packets counted", where.packets);
  }
  add_check(list, check_result::no, place, "the firewall drops streams from %s to %s after routing: %s %s %s%s",
            upstream, lan, where.family.data(), where.table.data(), where.chain.data(), text_of(counter));
  if (std::strcmp(where.family.data(), SAVED_FAMILY) == 0) {
    add_cure(list, "ip6tables -t %s -I %s -i %s -o %s -d ff00::/8 -j ACCEPT", where.table.data(), where.chain.data(),
             upstream, lan);
  } else {
    add_cure(list, "nft insert rule %s %s %s iifname %s oifname %s ip6 daddr ff00::/8 accept", where.family.data(),
             where.table.data(), where.chain.data(), upstream, lan);
  }
  free_rows(counter);
}

// Returns false if the firewall certainly drops it.
bool check_forward_firewall(check_list &list, const check_subject &subject, const path_facts &facts,
                            const char *upstream, const char *lan, bool leaves) {
  const char *group = subject.group[0] != '\0' ? subject.group.data() : some_group;
  const test_packet packet{"forward", upstream, lan, "udp", "", "udp", "new", group, subject.source.data()};
  firewall_place where{};
  const firewall_answer answer = ask_rules(facts.rules, packet, where);
  if (answer == firewall_answer::dropped && !leaves) {
    say_dropped(list, upstream, lan, where);
    return false;
  }
  if (answer == firewall_answer::unclear && !leaves) {
    add_check(list, check_result::unknown, place, "whether the firewall lets streams pass from %s to %s", upstream,
              lan);
  } else {
    add_check(list, check_result::ok, place, "the firewall lets streams pass from %s to %s", upstream, lan);
  }
  return true;
}

// Returns false if the stream stops before the interface.
bool check_leaving(check_list &list, const group_capture &in, const group_capture *out, const link_row &lan) {
  constexpr std::uint64_t share = 2; // the rest may be on its way when the counting ends
  if (out == nullptr || in.arrived == 0) {
    return true;
  }
  const auto sent = static_cast<unsigned long long>(out->sent);
  const auto arrived = static_cast<unsigned long long>(in.arrived);
  if (sent < arrived / share || sent == 0) {
    add_check(list, check_result::no, place, "dropped after routing: %s sent %llu of %llu packets", lan.name.data(),
              sent, arrived);
    add_cure(list, "nft list ruleset; tc -s qdisc show dev %s", lan.name.data());
    return false;
  }
  add_check(list, check_result::ok, place, "%s sends the stream: %llu of %llu packets", lan.name.data(), sent, arrived);
  return true;
}

bool has_group(const path_facts &facts, const group_text &group, const link_row &port) {
  const std::span<bridge_group_row> rows = all_rows(facts.network.groups);
  return std::any_of(rows.begin(), rows.end(), [&](const bridge_group_row &row) {
    return row.port == port.index && row.bridge == port.bridge && row.group == group;
  });
}

bool can_send(const link_row &port) {
  return (port.flags & IFF_UP) != 0 && (port.flags & IFF_LOWER_UP) != 0 && port.port_state == BR_STATE_FORWARDING;
}

// What keeps a port from sending, with the cure.
void say_port(check_list &list, const link_row &port) {
  const char *name = port.name.data();
  if ((port.flags & IFF_UP) == 0) {
    add_check(list, check_result::no, place, "port %s has the group and is down", name);
    add_cure(list, "ip link set %s up", name);
  } else if (!can_send(port)) {
    add_check(list, check_result::no, place, "port %s has the group and does not forward (bridge state %d)", name,
              port.port_state);
    add_cure(list, "bridge -d link show dev %s", name);
  } else {
    add_check(list, check_result::no, place, "port %s has the group and sends 0 packets of it", name);
    add_cure(list, "nft list ruleset bridge; bridge vlan show dev %s; tc -s qdisc show dev %s", name, name);
  }
}

// The ports that send the stream, by what was counted. Returns false after it has named one that should and does not.
bool add_sending_ports(check_list &list, text &names, const check_subject &subject, const path_facts &facts,
                       const link_row &bridge) {
  for (const link_row &port : all_rows(facts.network.links)) {
    const group_capture *capture = port.bridge == bridge.index ? find_capture(facts.captures, port.index) : nullptr;
    if (capture == nullptr) {
      continue;
    }
    if (capture->sent > 0) {
      add_text(names, " %s", port.name.data());
    } else if (has_group(facts, subject.group, port)) {
      say_port(list, port);
      return false;
    }
  }
  return true;
}

bool is_held_by_a_port(const check_subject &subject, const path_facts &facts, const link_row &bridge) {
  const std::span<link_row> links = all_rows(facts.network.links);
  return std::any_of(links.begin(), links.end(), [&](const link_row &port) {
    return port.bridge == bridge.index && has_group(facts, subject.group, port);
  });
}

bool is_narrowed(const link_row &bridge) { return bridge.snooping != 0 && bridge.querier[0] != '\0'; }

// A port that cannot send; null if all can.
const link_row *find_closed_port(const path_facts &facts, const link_row &bridge) {
  for (const link_row &port : all_rows(facts.network.links)) {
    if (port.bridge == bridge.index && !can_send(port)) {
      return &port;
    }
  }
  return nullptr;
}

void say_no_port(check_list &list, const path_facts &facts, const link_row &bridge) {
  const link_row *closed = find_closed_port(facts, bridge);
  if (closed != nullptr) {
    add_check(list, check_result::no, place, "no port of bridge %s has the group, and port %s is down",
              bridge.name.data(), closed->name.data());
    add_cure(list, "ip link set %s up", closed->name.data());
  } else if (is_narrowed(bridge)) {
    add_check(list, check_result::no, place,
              "bridge %s knows querier %s and no port with the group: snooping keeps the stream from hosts",
              bridge.name.data(), bridge.querier.data());
    add_cure(list, "ip link set %s type bridge mcast_snooping 0", bridge.name.data());
  } else {
    add_check(list, check_result::no, place, "no port of bridge %s sends the stream", bridge.name.data());
    add_cure(list, "bridge -d link show; bridge vlan show # a port has to be up, forwarding and in the VLAN");
  }
}

void check_ports(check_list &list, const check_subject &subject, const path_facts &facts, const link_row &bridge) {
  text names;
  if (add_sending_ports(list, names, subject, facts, bridge)) {
    // A port that sends without holding the group leads to a router, or the bridge floods.
    const bool is_held = is_held_by_a_port(subject, facts, bridge);
    const bool needs_holder =
        is_narrowed(bridge) || (bridge.snooping != 0 && find_closed_port(facts, bridge) != nullptr);
    if (names.count == 0 || (needs_holder && !is_held)) {
      say_no_port(list, facts, bridge);
    } else {
      add_check(list, check_result::ok, place, "ports of %s that send the stream:%s", bridge.name.data(),
                text_of(names));
    }
  }
  free_rows(names);
}

void check_lan_output(check_list &list, const check_subject &subject, const path_facts &facts, const link_row &upstream,
                      const link_row &lan) {
  const group_capture *in = find_capture(facts.captures, upstream.index);
  const group_capture *out = find_capture(facts.captures, lan.index);
  const bool leaves = out != nullptr && out->sent > 0;
  if (facts.rules.is_read &&
      !check_forward_firewall(list, subject, facts, upstream.name.data(), lan.name.data(), leaves)) {
    return;
  }
  if (subject.group[0] == '\0' || in == nullptr || !has_listeners(subject, lan.name)) {
    return;
  }
  if (check_leaving(list, *in, out, lan) && leaves && lan.is_bridge) {
    check_ports(list, subject, facts, lan);
  }
}

} // namespace

void check_output(check_list &list, const check_subject &subject, const path_facts &facts) {
  const link_row *upstream = upstream_link(subject, facts);
  if (upstream == nullptr) {
    return;
  }
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    const link_row *lan = row.is_upstream ? nullptr : find_link(facts.network, row.counters.name.data());
    if (lan != nullptr) {
      check_lan_output(list, subject, facts, *upstream, *lan);
    }
  }
}

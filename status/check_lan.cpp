#include "status/check_lan.h"

#include "status/cure.h"
#include "status/number_text.h"
#include "status/saved_rules.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr char place[] = "LAN";
constexpr char mldv2_routers[] = "ff02::16"; // RFC 3810 section 5.2.14

// Hosts and bridges drop frames from a MAC address that is nobody's.
void check_query_mac(check_list &list, const check_subject &subject, const path_facts &facts) {
  mac_address set{};
  std::sscanf(text_of(facts.lan_mac), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &set[0], &set[1], &set[2], &set[3], &set[4],
              &set[5]);
  const link_row *first = nullptr;
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    const link_row *link = row.is_upstream ? nullptr : find_link(facts.network, row.counters.name.data());
    if (link != nullptr && link->mac == set) {
      add_check(list, check_result::ok, place, "queries have the MAC address of %s (et0macaddr=%s)", link->name.data(),
                text_of(facts.lan_mac));
      return;
    }
    first = first == nullptr ? link : first;
  }
  if (first == nullptr) {
    return;
  }
  const mac_address &mac = first->mac;
  add_check(list, check_result::no, place,
            "queries have the MAC address '%s', %s has %02x:%02x:%02x:%02x:%02x:%02x: streams stop after 6 minutes",
            text_of(facts.lan_mac), first->name.data(), mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  add_cure(list,
           "sed -i '/^et0macaddr=/d' /etc/tarnwick/nvram; echo \"et0macaddr=$(cat /sys/class/net/%s/address)\" "
           ">>/etc/tarnwick/nvram; %s",
           first->name.data(), restart_command());
}

bool has_joined(const path_facts &facts, std::uint32_t index, const char *group) {
  const std::span<membership_row> rows = all_rows(facts.memberships);
  return std::any_of(rows.begin(), rows.end(), [&](const membership_row &row) {
    return row.interface == index && std::strcmp(row.group.data(), group) == 0;
  });
}

// Without that membership the kernel does not hand MLDv2 reports to the daemon.
void check_report_membership(check_list &list, const path_facts &facts, const link_row &link) {
  if (has_joined(facts, link.index, mldv2_routers)) {
    add_check(list, check_result::ok, place, "%s takes MLDv2 reports (%s is joined)", link.name.data(), mldv2_routers);
    return;
  }
  add_check(list, check_result::no, place, "%s does not take MLDv2 reports: %s is not joined", link.name.data(),
            mldv2_routers);
  add_cure(list, "%s", restart_command());
}

// A querier whose query is overdue: everybody's memberships run out.
void check_querier(check_list &list, const interface_row &row, const link_row &link) {
  constexpr long centiseconds_per_second = 100;
  constexpr long overdue_seconds = 125 + 10; // query interval and response interval, RFC 3810 sections 9.2 and 9.3
  const char *name = link.name.data();
  if (link.querier[0] != '\0' && link.querier_left_centiseconds > 0) {
    const auto left = static_cast<long>(link.querier_left_centiseconds) / centiseconds_per_second;
    const long since = static_cast<long>(link.querier_total_centiseconds) / centiseconds_per_second - left;
    const bool is_overdue = since > overdue_seconds;
    add_check(list, is_overdue ? check_result::no : check_result::ok, place,
              is_overdue ? "the querier %s on %s is silent: last heard %s ago" : "querier %s heard on %s %s ago",
              link.querier.data(), name, duration_text(since).data());
    if (is_overdue) {
      add_cure(list, "%s", restart_command());
    }
  } else if (row.counters.queries == 0) {
    add_check(list, check_result::ok, place, "tarnwick is querier on %s (heard 0 queries of others)", name);
  } else {
    add_check(list, check_result::ok, place, "%d queries of others were heard on %s, and no bridge knows a querier now",
              row.counters.queries, name);
  }
}

// The newest query on the LAN, no matter who sent it. The daemon's own queries are not noted.
void add_last_query(check_list &list, const path_facts &facts, const link_row &link) {
  const heard_line *last = nullptr;
  for (const heard_line &line : all_rows(facts.heard)) {
    const bool is_query = line.kind == heard_kind::own_query || line.kind == heard_kind::other_query;
    if (is_query && line.index == link.index && (last == nullptr || line.seconds_ago < last->seconds_ago)) {
      last = &line;
    }
  }
  if (last != nullptr) {
    add_check(list, check_result::ok, place, "the last query on %s was %s %s %s ago", link.name.data(),
              last->kind == heard_kind::own_query ? "sent by" : "heard from",
              last->kind == heard_kind::own_query ? COMPANION_NAME : last->host.data(),
              duration_text(last->seconds_ago).data());
  }
}

void check_bridge(check_list &list, const path_facts &facts, const link_row &link) {
  if (!link.is_bridge) {
    return;
  }
  text routers;
  for (const router_port_row &row : all_rows(facts.network.routers)) {
    const link_row *port = row.bridge == link.index ? find_link(facts.network, row.port) : nullptr;
    if (port != nullptr) {
      add_text(routers, " %s", port->name.data());
    }
  }
  if (link.snooping == 0) {
    add_check(list, check_result::ok, place, "bridge %s does not snoop: streams go to all ports", link.name.data());
  } else {
    add_check(list, check_result::ok, place, "bridge %s snoops (MLDv%d), %s; router ports:%s", link.name.data(),
              link.mld_version,
              link.querier[0] == '\0' ? "knows no querier, so streams go to all ports" : link.querier.data(),
              routers.count > 0 ? text_of(routers) : " none");
  }
  free_rows(routers);
}

struct mld_kind {
  const char *type; // as nft names it
  int number;
  const char *group; // it is sent to; "" for the reported one
};

constexpr std::array<mld_kind, 3> mld_kinds{{{"mld2-listener-report", 143, mldv2_routers},
                                             {"mld-listener-report", 131, ""},
                                             {"mld-listener-query", 130, "ff02::1"}}};

void say_dropped(check_list &list, const char *name, const mld_kind &kind, const firewall_place &where) {
  add_check(list, check_result::no, place, "the firewall drops ICMPv6 type %d (%s) from %s: %s %s %s", kind.number,
            kind.type, name, where.family.data(), where.table.data(), where.chain.data());
  if (std::strcmp(where.family.data(), SAVED_FAMILY) == 0) {
    add_cure(list, "ip6tables -t %s -I %s -i %s -p ipv6-icmp --icmpv6-type %d -j ACCEPT", where.table.data(),
             where.chain.data(), name, kind.number);
    return;
  }
  add_cure(list,
           "nft insert rule %s %s %s icmpv6 type '{ mld-listener-query, mld-listener-report, mld-listener-done, "
           "mld2-listener-report }' accept",
           where.family.data(), where.table.data(), where.chain.data());
}

void check_input_firewall(check_list &list, const path_facts &facts, const char *name) {
  bool is_unclear = false;
  for (const mld_kind &kind : mld_kinds) {
    const test_packet packet{"input", name, "", "ipv6-icmp", kind.type, "hopopt", "untracked", kind.group, "fe80::1"};
    firewall_place where{};
    const firewall_answer answer = ask_rules(facts.rules, packet, where);
    if (answer == firewall_answer::dropped) {
      say_dropped(list, name, kind, where);
      return;
    }
    is_unclear = is_unclear || answer == firewall_answer::unclear;
  }
  if (is_unclear) {
    add_check(list, check_result::unknown, place, "whether the firewall lets MLD in from %s: its rules are conditional",
              name);
  } else {
    add_check(list, check_result::ok, place, "the firewall lets MLD in from %s (ICMPv6 types 130, 131, 143)", name);
  }
}

} // namespace

void check_lan(check_list &list, const check_subject &subject, const path_facts &facts) {
  check_query_mac(list, subject, facts);
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    const link_row *link = row.is_upstream ? nullptr : find_link(facts.network, row.counters.name.data());
    if (link == nullptr) {
      continue;
    }
    check_report_membership(list, facts, *link);
    check_querier(list, row, *link);
    add_last_query(list, facts, *link);
    check_bridge(list, facts, *link);
    if (facts.rules.is_read) {
      check_input_firewall(list, facts, link->name.data());
    }
  }
  if (!facts.rules.is_read) {
    add_check(list, check_result::unknown, place,
              "the firewall's rules cannot be read: 'nft -j list ruleset' and "
              "'ip6tables-save' fail");
  }
}

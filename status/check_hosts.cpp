#include "status/check_hosts.h"

#include "status/number_text.h"

#include <algorithm>
#include <arpa/inet.h>

namespace {

constexpr char place[] = "hosts";

// ff3x::/32, RFC 4607 section 1.
bool is_source_specific(const group_text &group) {
  in6_addr address{};
  inet_pton(AF_INET6, group.data(), &address);
  return address.s6_addr[0] == 0xff && (address.s6_addr[1] & 0xf0) == 0x30 && address.s6_addr[2] == 0 &&
         address.s6_addr[3] == 0;
}

// The bridge's port behind which a host wants the group; null if it knows none.
const link_row *port_with_group(const check_subject &subject, const path_facts &facts) {
  for (const bridge_group_row &row : all_rows(facts.network.groups)) {
    if (row.port != row.bridge && row.group == subject.group) {
      return find_link(facts.network, row.port);
    }
  }
  return nullptr;
}

bool has_sources(const check_subject &subject, const path_facts &facts) {
  rows_of<group_text> sources;
  list_wanted_sources(sources, subject, facts);
  const bool has_any = sources.count > 0;
  free_rows(sources);
  return has_any;
}

bool arrives_somewhere(const path_facts &facts) {
  const std::span<group_capture> captures = all_rows(facts.captures);
  return std::any_of(captures.begin(), captures.end(), [](const group_capture &each) { return each.arrived > 0; });
}

bool is_report(const heard_line &line) {
  return line.kind == heard_kind::mldv1_report || line.kind == heard_kind::mldv2_report;
}

struct reporters {
  std::size_t count;
  bool has_mldv2;
  const heard_line *last;
};

reporters find_reporters(const path_facts &facts, std::uint32_t index, const group_text &group) {
  reporters found{};
  for (const heard_line &line : all_rows(facts.heard)) {
    if (line.index == index && is_report(line) && line.group == group) {
      ++found.count;
      found.has_mldv2 = found.has_mldv2 || line.kind == heard_kind::mldv2_report;
      found.last = found.last == nullptr || line.seconds_ago < found.last->seconds_ago ? &line : found.last;
    }
  }
  return found;
}

// Who wants it: the companion has heard the same reports as the daemon, which does not name the hosts.
void add_reporters(check_list &list, const path_facts &facts, const link_row &lan, const group_text &group) {
  const reporters found = find_reporters(facts, lan.index, group);
  if (found.last == nullptr) {
    return;
  }
  const int version = found.last->kind == heard_kind::mldv1_report ? 1 : 2;
  add_check(list, check_result::ok, place, "%zu host%s on %s reported %s, %s %s ago (MLDv%d)%s", found.count,
            found.count == 1 ? "" : "s", lan.name.data(), group.data(), found.last->host.data(),
            duration_text(found.last->seconds_ago).data(), version,
            found.has_mldv2 ? "" : ": only MLDv1 hosts, whose leaves are not heard");
}

void say_nobody(check_list &list, const check_subject &subject, const path_facts &facts) {
  const link_row *port = port_with_group(subject, facts);
  if (port != nullptr) {
    add_check(list, check_result::no, place, "a host behind port %s wants %s, and tarnwick has not heard of it",
              port->name.data(), subject.group.data());
    add_cure(list, "nft list ruleset");
    return;
  }
  add_check(list, check_result::no, place, "no host wants %s (0 reports)", subject.group.data());
  add_cure(list, "ip -6 maddress show # on the host: the player has to join the group");
}

} // namespace

bool has_listeners(const check_subject &subject, const interface_text &lan) {
  const std::span<group_line> lines = all_rows(subject.snapshot->listeners);
  return std::any_of(lines.begin(), lines.end(), [&](const group_line &line) {
    return std::strcmp(line.group.data(), subject.group.data()) == 0 &&
           std::strcmp(line.interface.data(), lan.data()) == 0;
  });
}

void list_wanted_sources(rows_of<group_text> &sources, const check_subject &subject, const path_facts &facts) {
  constexpr char any_address[] = "::";
  for (const group_source_row &row : all_rows(facts.group_sources)) {
    if (row.group == subject.group && row.included > 0) {
      add_row(sources, row.source);
    }
  }
  if (sources.count > 0) {
    return;
  }
  for (const stream_row &stream : all_rows(subject.snapshot->streams)) {
    if (stream.entry == nullptr || stream.kind == stream_kind::unresolved || stream.entry->group != subject.group) {
      continue;
    }
    if (std::strcmp(stream.entry->origin.data(), any_address) == 0) {
      clear_rows(sources);
      return;
    }
    add_row(sources, stream.entry->origin);
  }
}

void check_hosts(check_list &list, const check_subject &subject, const path_facts &facts) {
  bool is_wanted = false;
  for (const group_line &line : all_rows(subject.snapshot->listeners)) {
    if (std::strcmp(line.group.data(), subject.group.data()) == 0) {
      is_wanted = true;
      add_check(list, check_result::ok, place, "hosts on %s want %s (counted %s)", line.interface.data(),
                subject.group.data(), duration_text(line.average_seconds).data());
      if (const link_row *lan = find_link(facts.network, line.interface.data()); lan != nullptr) {
        add_reporters(list, facts, *lan, subject.group);
      }
    }
  }
  if (!is_wanted) {
    say_nobody(list, subject, facts);
    return;
  }
  // Providers route such groups for named sources only.
  if (is_source_specific(subject.group) && !has_sources(subject, facts) && !arrives_somewhere(facts)) {
    add_check(list, check_result::no, place,
              "%s needs a source, and the hosts name none, as MLDv1 hosts do (0 sources joined)", subject.group.data());
    add_cure(list, "sysctl -w net.ipv6.conf.all.force_mld_version=0 # on the host; the player has to name the source");
  }
}

#include "status/check_upstream.h"

#include "status/check_hosts.h"
#include "status/cure.h"
#include "status/number_text.h"

namespace {

constexpr char place[] = "upstream";

const interface_row *upstream_of(const check_subject &subject) {
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    if (row.is_upstream) {
      return &row;
    }
  }
  return nullptr;
}

void check_provider_querier(check_list &list, const interface_row &row, long running_seconds) {
  add_check(list, check_result::ok, place, "%d queries of the provider were heard on %s in %s", row.counters.queries,
            row.counters.name.data(), duration_text(running_seconds > 0 ? running_seconds : 0).data());
}

bool is_joined(const path_facts &facts, std::uint32_t index, const group_text &group) {
  for (const membership_row &row : all_rows(facts.memberships)) {
    if (row.interface == index && row.group == group && row.users > 0) {
      return true;
    }
  }
  return false;
}

void check_membership(check_list &list, const check_subject &subject, const path_facts &facts, const link_row &link) {
  if (!is_joined(facts, link.index, subject.group)) {
    add_check(list, check_result::no, place, "%s is not joined on %s", subject.group.data(), link.name.data());
    add_cure(list, "sysctl -w net.core.optmem_max=131072; %s", restart_command());
    return;
  }
  rows_of<group_text> wanted;
  list_wanted_sources(wanted, subject, facts);
  text sources;
  bool is_included = false;
  for (const group_text &source : all_rows(wanted)) {
    add_text(sources, " %s", source.data());
    is_included = is_included || source == subject.source;
  }
  free_rows(wanted);
  const bool lacks_source = subject.source[0] != '\0' && sources.count > 0 && !is_included;
  add_check(list, lacks_source ? check_result::no : check_result::ok, place, "%s is joined on %s for%s%s%s",
            subject.group.data(), link.name.data(), sources.count > 0 ? text_of(sources) : " all sources",
            lacks_source ? ", not for " : "", lacks_source ? subject.source.data() : "");
  if (lacks_source) {
    add_cure(list, "%s", restart_command());
  }
  free_rows(sources);
}

// Another multicast interface where the group arrives; null if there is none.
const link_row *other_arrival(const check_subject &subject, const path_facts &facts, std::uint32_t upstream) {
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    const link_row *link = find_link(facts.network, row.counters.name.data());
    const group_capture *capture = link != nullptr ? find_capture(facts.captures, link->index) : nullptr;
    if (capture != nullptr && capture->index != upstream && capture->arrived > 0) {
      return link;
    }
  }
  return nullptr;
}

void say_nothing_arrives(check_list &list, const check_subject &subject, const path_facts &facts, const link_row &link,
                         const interface_row &row) {
  const link_row *other = other_arrival(subject, facts, link.index);
  if (other != nullptr) {
    add_check(list, check_result::no, place, "%s arrives through %s, the wrong interface: %s is upstream",
              subject.group.data(), other->name.data(), link.name.data());
    add_cure(list, "ip link show %s # which network is the source in?", other->name.data());
    return;
  }
  add_check(list, check_result::no, place,
            "the provider sends nothing to %s%s%s: 0 packets on %s in %d s, %d queries heard", subject.group.data(),
            subject.source[0] != '\0' ? " from " : "", subject.source.data(), link.name.data(), CHECK_SAMPLE_SECONDS,
            row.counters.queries);
  add_cure(list, "tcpdump -ni %s ip6 multicast # is it the provider's network, VLAN, group?", link.name.data());
}

void check_arrival(check_list &list, const check_subject &subject, const path_facts &facts, const link_row &link,
                   const interface_row &row) {
  constexpr int least_forwarded_hop_limit = 2;
  const group_capture *capture = find_capture(facts.captures, link.index);
  if (capture == nullptr) {
    add_check(list, check_result::unknown, place, "whether %s arrives on %s: capturing needs CAP_NET_RAW",
              subject.group.data(), link.name.data());
    return;
  }
  if (capture->arrived == 0) {
    say_nothing_arrives(list, subject, facts, link, row);
    return;
  }
  const auto arrived = static_cast<unsigned long long>(capture->arrived);
  add_check(list, check_result::ok, place, "%s arrives on %s from %s: %llu packets in %d s", subject.group.data(),
            link.name.data(), capture->source.data(), arrived, CHECK_SAMPLE_SECONDS);
  const bool is_forwarded = capture->least_hop_limit >= least_forwarded_hop_limit;
  add_check(list, is_forwarded ? check_result::ok : check_result::no, place, "its packets arrive with hop limit %d%s",
            capture->least_hop_limit, is_forwarded ? "" : ", and a router does not forward them");
  if (!is_forwarded) {
    add_cure(list,
             "nft add table ip6 hops; nft add chain ip6 hops in '{ type filter hook prerouting priority -300; }'; nft "
             "add rule ip6 hops in iifname %s ip6 daddr %s ip6 hoplimit set 8",
             link.name.data(), subject.group.data());
  }
}

} // namespace

void check_upstream(check_list &list, const check_subject &subject, const path_facts &facts) {
  const interface_row *row = upstream_of(subject);
  const link_row *link = row != nullptr ? find_link(facts.network, row->counters.name.data()) : nullptr;
  if (link == nullptr) {
    return;
  }
  check_provider_querier(list, *row, seconds_running(subject.daemon));
  if (subject.group[0] != '\0') {
    check_membership(list, subject, facts, *link);
    check_arrival(list, subject, facts, *link, *row);
  }
}

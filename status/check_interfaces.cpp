#include "status/check_interfaces.h"

#include "status/cure.h"

#include <linux/if.h>

namespace {

constexpr char place[] = "interface";

const link_local_row *find_usable_address(const path_facts &facts, std::uint32_t index) {
  for (const link_local_row &row : all_rows(facts.network.addresses)) {
    if (row.index == index && row.is_usable) {
      return &row;
    }
  }
  return nullptr;
}

// The daemon reads its address only at the start.
bool has_address_from_before(const path_facts &facts, std::uint32_t index) {
  constexpr double tolerance_seconds = 0.5; // two clocks are compared
  for (const link_local_row &row : all_rows(facts.network.addresses)) {
    if (row.index == index && row.created_at_seconds <= facts.daemon_started_at_seconds + tolerance_seconds) {
      return true;
    }
  }
  return false;
}

// The daemon's own placeholder for a missing interface is not shown; its command line has the name.
void say_gone(check_list &list, const path_facts &facts) {
  text names;
  for (const interface_text &name : all_rows(facts.served)) {
    if (find_link(facts.network, name.data()) == nullptr) {
      add_text(names, "%s%s", names.count > 0 ? ", " : "", name.data());
    }
  }
  add_check(list, check_result::no, place, "%s is gone",
            names.count > 0 ? text_of(names) : "an interface that tarnwick serves");
  free_rows(names);
}

bool check_registration(check_list &list, const path_facts &facts, const interface_row &row, const link_row *link) {
  const char *name = row.counters.name.data();
  if (link == nullptr) {
    say_gone(list, facts);
  } else if (row.mif == nullptr) {
    add_check(list, check_result::no, place, "%s was made anew: it has index %u now and is not registered", name,
              link->index);
  } else if (static_cast<std::uint32_t>(row.mif->number) != link->index) {
    add_check(list, check_result::no, place, "%s was made anew: it has index %u now and is registered as %d", name,
              link->index, row.mif->number);
  } else {
    return true;
  }
  add_cure(list, "%s", restart_command());
  return false;
}

bool check_link(check_list &list, const link_row &link) {
  const char *name = link.name.data();
  if ((link.flags & IFF_UP) == 0) {
    add_check(list, check_result::no, place, "%s is down", name);
    add_cure(list, "ip link set %s up", name);
    return false;
  }
  if ((link.flags & IFF_LOWER_UP) == 0) {
    add_check(list, check_result::no, place, "%s has no carrier: is its cable plugged in, its other end up?", name);
    add_cure(list, "ip link show %s", name);
    return false;
  }
  return true;
}

void check_address(check_list &list, const path_facts &facts, const interface_row &row, const link_row &link) {
  const char *name = link.name.data();
  const link_local_row *address = find_usable_address(facts, link.index);
  if (address == nullptr) {
    add_check(list, check_result::no, place, "%s has no link-local address that can be used", name);
    add_cure(list, "sysctl -w net.ipv6.conf.%s.disable_ipv6=0", name);
  } else if (!has_address_from_before(facts, link.index)) {
    add_check(list, check_result::no, place, "%s got its link-local address %s after tarnwick started", name,
              address->address.data());
    add_cure(list, "%s", restart_command());
  } else {
    add_check(list, check_result::ok, place, "%s (%s) is up with %s, registered as %d", name,
              row.is_upstream ? "upstream" : "LAN", address->address.data(), row.mif->number);
  }
}

} // namespace

void check_interfaces(check_list &list, const check_subject &subject, const path_facts &facts) {
  if (!facts.network.has_links) {
    add_check(list, check_result::unknown, place, "the kernel could not be asked for its interfaces");
    return;
  }
  for (const interface_row &row : all_rows(subject.snapshot->interfaces)) {
    const link_row *link = find_link(facts.network, row.counters.name.data());
    if (check_registration(list, facts, row, link) && check_link(list, *link)) {
      check_address(list, facts, row, *link);
    }
  }
}

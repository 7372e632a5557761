#include "run/carrier_judgement.h"

#include "run/wireless_link.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if_arp.h>

namespace {

bool is_of_kind(const link_facts &link, const char *kind) { return std::strcmp(link.kind.data(), kind) == 0; }

} // namespace

bool is_bridge(const link_facts &host) { return is_of_kind(host, "bridge"); }

int ask_carrier(int host_socket, const char *name, carrier_facts &facts) {
  facts = {};
  const int reason = ask_link(host_socket, name, facts.link);
  if (reason == 0) {
    facts.is_wireless_station = is_wireless_station(facts.link.index);
    if (facts.link.master != 0) {
      ask_link(host_socket, facts.link.master, facts.master);
    }
  }
  return reason;
}

bool can_carry_link(const carrier_facts &carrier, upstream_link_kind kind, reason_text &reason) {
  const link_facts &host = carrier.link;
  const link_facts &master = carrier.master;
  if (host.hardware != ARPHRD_ETHER || (host.flags & IFF_LOOPBACK) != 0) {
    std::snprintf(reason.data(), reason.size(),
                  "%s cannot carry a macvlan: it is not an Ethernet interface (PPPoE and tunnels are not); "
                  "use --network=host",
                  host.name.data());
    return false;
  }
  // A VRF leaves its members' packets alone; whatever else has members takes them before a macvlan could.
  if (master.index != 0 && !is_of_kind(master, "vrf")) {
    std::snprintf(reason.data(), reason.size(),
                  "%s cannot carry a macvlan: it is a port of %s; name %s instead, or use --network=host",
                  host.name.data(), master.name.data(), master.name.data());
    return false;
  }
  if (carrier.is_wireless_station && kind == upstream_link_kind::macvlan) {
    std::snprintf(
        reason.data(), reason.size(),
        "%s cannot carry a macvlan: the access point of a Wi-Fi station takes frames of one MAC address only; "
        "use --network=host, or --upstream-link=ipvlan",
        host.name.data());
    return false;
  }
  return true;
}

reason_text reason_of_refusal(int refusal, const char *kind, const char *host_name) {
  reason_text reason;
  switch (refusal) {
  case EOPNOTSUPP:
    std::snprintf(reason.data(), reason.size(), "this kernel has no %s links; use --network=host", kind);
    break;
  case EPERM:
    std::snprintf(reason.data(), reason.size(), "not permitted to make a %s for %s: CAP_NET_ADMIN is needed", kind,
                  host_name);
    break;
  case EBUSY:
    std::snprintf(reason.data(), reason.size(),
                  "%s cannot carry a %s: something else takes its packets already, such as a bridge, a bond or a link "
                  "of another kind on it; use --network=host",
                  host_name, kind);
    break;
  case ENODEV:
    std::snprintf(reason.data(), reason.size(), "%s has gone", host_name);
    break;
  default:
    std::snprintf(reason.data(), reason.size(), "%s cannot carry a %s: %s; use --network=host", host_name, kind,
                  std::strerror(refusal));
    break;
  }
  return reason;
}

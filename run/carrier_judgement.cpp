#include "run/carrier_judgement.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if_arp.h>

namespace {

bool is_of_kind(const link_facts &link, const char *kind) { return std::strcmp(link.kind.data(), kind) == 0; }

} // namespace

bool is_bridge(const link_facts &host) { return is_of_kind(host, "bridge"); }

bool can_carry_link(const link_facts &host, const link_facts &master, reason_text &reason) {
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

#include "igmp/igmp_socket.h"

#include "core/log.h"
#include "igmp/igmp_router.h"

#include <linux/mroute.h>
#include <linux/mroute6.h>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>

namespace {

struct option_step {
  int level;
  int number;
  int value;
  const char *failure; // what the log says when the kernel refuses
};

constexpr option_step reuse_address{SOL_SOCKET, SO_REUSEADDR, 1, "Unable to enable SO_REUSEADDR option."};

constexpr std::array<option_step, 5> igmp_steps{{
    {IPPROTO_IP, MRT_INIT, 1, "Unable to enable MRT_INIT option."},
    reuse_address,
    {IPPROTO_IP, IP_PKTINFO, 1, "Unable to enable IP_PKTINFO option."},
    {IPPROTO_IP, IP_MULTICAST_TTL, 1, "Unable to set IP_MULTICAST_TTL value."},
    {IPPROTO_IP, IP_MULTICAST_LOOP, 0, "Unable to disable IP_MULTICAST_LOOP option."},
}};

constexpr std::array<option_step, 5> mld_steps{{
    {IPPROTO_IPV6, MRT6_INIT, 1, "Unable to enable MRT6_INIT option."},
    reuse_address,
    {IPPROTO_IPV6, IPV6_RECVPKTINFO, 1, "Unable to enable IPV6_RECVPKTINFO option."},
    {IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 1, "Unable to enable IPV6_MULTICAST_HOPS option."},
    {IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0, "Unable to disable IPV6_MULTICAST_LOOP option."},
}};

// Returns false after logging the first option that the kernel refuses; the rest is not tried.
bool set_options(log_site site, std::span<const option_step> steps) {
  for (const option_step &step : steps) {
    if (setsockopt(IgmpRouter.socket, step.level, step.number, &step.value, sizeof(step.value)) != 0) {
      log_error(site, "%s", step.failure);
      return false;
    }
  }
  return true;
}

// Releases a claim that a killed daemon may have left. A fresh socket has none, so the kernel normally refuses.
void release_stale_claim() {
  const int on = 1;
  setsockopt(IgmpRouter.socket, IPPROTO_IPV6, MRT6_DONE, &on, sizeof(on));
}

} // namespace

int init_igmp_socket() {
  log_information(IGMP_HERE, "Initializing IGMP socket.");
  IgmpRouter.socket = socket(AF_INET, SOCK_RAW, IPPROTO_IGMP);
  if (IgmpRouter.socket < 0) {
    log_error(IGMP_HERE, "Unable to open IGMP Raw socket.");
    return -1;
  }
  if (!set_options(IGMP_HERE, igmp_steps)) {
    return -1;
  }
  if (ProxyMode != PROXY_MODE_4TO6) {
    return 0;
  }
  // The router's kernel takes these on the IPv4 socket; a mainline kernel knows no such option there and start-up ends.
  release_stale_claim();
  return set_options(IGMP_HERE, mld_steps) ? 0 : -1;
}

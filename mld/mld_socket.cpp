#include "mld/mld_socket.h"

#include "mld/mld_options.h"
#include "mld/mld_router.h"
#include "mld/mld_wire.h"

#include <array>

#define SOCKET_HERE MLD_STEP_OF("init_mld_socket")

namespace {

struct option_step {
  kernel_option option;
  int value;
};

constexpr std::array<option_step, 5> steps{{
    {MLD_OPTION_MRT6_INIT, 1},
    {MLD_OPTION_SO_REUSEADDR, 1},
    {MLD_OPTION_IPV6_RECVPKTINFO, 1},
    {MLD_OPTION_IPV6_MULTICAST_HOPS, 1},
    {MLD_OPTION_IPV6_MULTICAST_LOOP, 0},
}};

// Returns false at the first option that the kernel refuses; the rest is not tried.
bool set_options() {
  for (const option_step &step : steps) {
    if (!kernel_request(SOCKET_HERE, request_log::either, MldRouter.socket, step.option, step.value)) {
      return false;
    }
  }
  return true;
}

// Lets queries and reports through. MLDv1 Done stays out, so MLDv1 listeners leave by timing out.
bool set_message_filter() {
  icmp6_filter filter;
  ICMP6_FILTER_SETBLOCKALL(&filter);
  ICMP6_FILTER_SETPASS(ICMPV6_MGM_QUERY, &filter);
  ICMP6_FILTER_SETPASS(ICMPV6_MGM_REPORT, &filter);
  ICMP6_FILTER_SETPASS(ICMPV6_MLD2_REPORT, &filter);
  return kernel_request(SOCKET_HERE, request_log::either, MldRouter.socket, MLD_OPTION_ICMP6_FILTER, filter);
}

// Releases a claim that a killed daemon may have left. A fresh socket has none, so the kernel normally refuses.
void release_stale_claim() {
  const int on = 1;
  setsockopt(MldRouter.socket, MLD_OPTION_MRT6_DONE.level, MLD_OPTION_MRT6_DONE.number, &on, sizeof(on));
  log_request_done(SOCKET_HERE, MLD_OPTION_MRT6_DONE);
}

} // namespace

int init_mld_socket() {
  log_debug(MLD_HERE, "Initializing socket for MLD proxy.");
  MldRouter.socket = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
  if (MldRouter.socket < 0) {
    log_error(MLD_HERE, "Unable to open MLD Raw socket.");
    return -1;
  }
  release_stale_claim();
  return set_options() && set_message_filter() ? 0 : -1;
}

// A router that runs the IGMP proxy in mode 4to4. The machine must be big-endian, and its interfaces must be numbered
// so that slot and index agree: see docs/igmp.md.
//
//   igmp_router -u <upstream interface> [-i <interface to ignore>]... [-t <seconds to run at most>]
//               [-m <milliseconds that a second takes, for timers of minutes>]
//
// Ends on SIGTERM or after the given time; SIGUSR1 writes the state files.
#include "igmp/igmp_router.h"
#include "core/settings.h"
#include "core/state_dump.h"
#include "igmp/igmp_forwarding.h"
#include "igmp/igmp_interface.h"
#include "igmp/igmp_receive.h"
#include "igmp/igmp_shutdown.h"
#include "igmp/igmp_socket.h"
#include "igmp/igmp_timers.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::int64_t default_run_seconds = 300;

std::int64_t RunSeconds = default_run_seconds;
std::int64_t TickMilliseconds = 1000;
volatile std::sig_atomic_t IsStopped = 0;
volatile std::sig_atomic_t IsDumpWanted = 0;

void stop(int) { IsStopped = 1; }

void want_dump(int) { IsDumpWanted = 1; }

bool parse_options(int argc, char **argv) {
  int option;
  while ((option = getopt(argc, argv, "u:i:t:m:")) != -1) {
    if (option == 'u') {
      UpstreamInterfacesName = optarg;
    } else if (option == 'i' && IgnoreInterfacesNum < INTERFACE_NAME_SLOTS) {
      IgnoreInterfacesName[static_cast<std::size_t>(IgnoreInterfacesNum++)] = optarg;
    } else if (option == 't') {
      RunSeconds = std::atoi(optarg);
    } else if (option == 'm') {
      TickMilliseconds = std::max(1, std::atoi(optarg));
    } else {
      return false;
    }
  }
  return UpstreamInterfacesName != nullptr;
}

bool start() {
  ProxyMode = PROXY_MODE_4TO4;
  init_igmp_config();
  return init_igmp_socket() == 0 && init_igmp_group() == 0 && init_igmp_query() == 0 &&
         igmp_create_network_list() == 0 && igmp_check_upstream_interface() == 0;
}

// The proxy's entries are for any source, and a mainline kernel forwards by them only if there is an entry (0.0.0.0,
// 0.0.0.0) with the upstream VIF as parent and only output. Only the socket that has claimed routing may add it.
bool add_static_entry() {
  constexpr unsigned char no_output = 255;
  mfcctl request = igmp_mfc_request(InAddrAny);
  std::fill(std::begin(request.mfcc_ttls), std::end(request.mfcc_ttls), no_output);
  if (request.mfcc_parent >= MAXVIFS) {
    return false;
  }
  request.mfcc_ttls[request.mfcc_parent] = 1;
  return setsockopt(IgmpRouter.socket, IPPROTO_IP, MRT_ADD_MFC, &request, sizeof(request)) == 0;
}

std::int64_t now_milliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void run_until_stopped() {
  const std::int64_t end = now_milliseconds() + RunSeconds * 1000;
  std::int64_t next_tick = now_milliseconds() + TickMilliseconds;
  while (IsStopped == 0 && now_milliseconds() < end) {
    const std::int64_t wait = std::clamp<std::int64_t>(next_tick - now_milliseconds(), 0, TickMilliseconds);
    pollfd readable{IgmpRouter.socket, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(wait)) == 1 && (readable.revents & POLLIN) != 0) {
      igmp_network_socket_read_data();
    }
    if (IsDumpWanted == 1) {
      IsDumpWanted = 0;
      write_state_dump();
    }
    if (now_milliseconds() >= next_tick) {
      next_tick += TickMilliseconds;
      igmp_router_timer_expired();
    }
  }
}

} // namespace

int main(int argc, char **argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (!parse_options(argc, argv)) {
    std::fputs("usage: igmp_router -u <upstream interface> [-i <interface to ignore>]... [-t <seconds>] [-m <ms>]\n",
               stderr);
    return EXIT_FAILURE;
  }
  std::signal(SIGTERM, stop);
  std::signal(SIGUSR1, want_dump);
  if (!start()) {
    return EXIT_FAILURE;
  }
  if (!add_static_entry()) {
    std::perror("igmp_router: static forwarding entry");
    igmp_proxy_stop();
    return EXIT_FAILURE;
  }
  run_until_stopped();
  igmp_proxy_stop();
  return EXIT_SUCCESS;
}

#include "igmp/igmp_shutdown.h"

#include "core/memory.h"
#include "core/pool.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_membership.h"
#include "igmp/igmp_vif.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <linux/mroute.h>
#include <linux/mroute6.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>

namespace {

// A group is off the list before it is dropped, so the last interface that holds it leaves it upstream.
void drop_groups(igmp_interface *intr) {
  for (igmp_group *group = list_pop<igmp_group>(&intr->groups); group != nullptr;
       group = list_pop<igmp_group>(&intr->groups)) {
    igmp_proxy_drop_membership(group);
    igmp_release_group(group);
  }
}

void restore_flags(log_site site, int ioctl_socket, const igmp_interface *intr) {
  ifreq request{};
  std::memcpy(request.ifr_name, intr->name.data(), sizeof(request.ifr_name));
  request.ifr_flags = intr->saved_flags;
  if (ioctl(ioctl_socket, SIOCSIFFLAGS, &request) < 0) {
    log_error(site, "Unable to restore interface flags for %s.", intr->name.data());
  }
}

// As it was registered, with one exception: a downstream interface of mode 4to6 never had a VIF.
void unregister_interface(log_site site, const igmp_interface *intr) {
  const bool is_upstream = intr->role == IGMP_ROLE_UPSTREAM;
  if (ProxyMode == PROXY_MODE_4TO4 || (ProxyMode == PROXY_MODE_4TO6 && is_upstream)) {
    igmp_delete_vif(site, intr);
  }
  if (ProxyMode == PROXY_MODE_4TO6) {
    igmp_delete_mif(site, intr);
  }
}

void stop_interfaces() {
  for (igmp_interface *intr = list_pop<igmp_interface>(&IgmpRouter.interfaces); intr != nullptr;
       intr = list_pop<igmp_interface>(&IgmpRouter.interfaces)) {
    if (intr->role != IGMP_ROLE_UPSTREAM) {
      igmp_proxy_clean_interface(intr);
      my_free(intr);
    }
  }
  // Not there when start-up failed before it was found.
  if (IgmpRouter.upstream_interface != nullptr) {
    igmp_proxy_clean_interface(IgmpRouter.upstream_interface);
    my_free(IgmpRouter.upstream_interface);
    IgmpRouter.upstream_interface = nullptr;
  }
}

// No option value: the kernel drops the VIFs, MIFs and entries that are left.
void release_multicast_routing(log_site site, int level, int done_option) {
  if (setsockopt(IgmpRouter.socket, level, done_option, nullptr, 0) != 0) {
    log_error(site, "Unable to close multicast socket. Error:%d.", errno);
  }
}

} // namespace

void igmp_proxy_clean_interface(igmp_interface *intr) {
  log_debug(IGMP_HERE, "Cleaning interface: %s", intr->name.data());
  const int ioctl_socket = socket(AF_INET, SOCK_DGRAM, 0);
  if (ioctl_socket < 0) {
    log_error(IGMP_HERE, "Unable to open socket for restore interface flags");
  }
  drop_groups(intr);
  const bool is_usable = ioctl_socket != 0; // a failed one counts, so that the refusal shows in the log
  if (is_usable) {
    restore_flags(IGMP_HERE, ioctl_socket, intr);
  }
  unregister_interface(IGMP_HERE, intr);
  if (is_usable) {
    close(ioctl_socket);
  }
  close(intr->socket);
  if (ProxyMode == PROXY_MODE_4TO6) {
    close(intr->socket6);
  }
}

void igmp_proxy_stop() {
  log_debug(IGMP_HERE, "Stopping IGMP Proxy.");
  stop_interfaces();
  free_pool(&IgmpRouter.free_queries);
  free_pool(&IgmpRouter.free_groups);
  release_multicast_routing(IGMP_HERE, IPPROTO_IP, MRT_DONE);
  if (ProxyMode == PROXY_MODE_4TO6) {
    log_debug(IGMP_HERE, "Close multicast socket: IgmpRouter.socket");
    release_multicast_routing(IGMP_HERE, IPPROTO_IPV6, MRT6_DONE);
    std::ignore = std::system("brctl delif br0 natpt0");
    std::ignore = std::system("ifconfig natpt0 down");
  }
  log_memory_report(IGMP_HERE, "IGMP");
}

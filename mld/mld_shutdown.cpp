#include "mld/mld_shutdown.h"

#include "core/memory.h"
#include "core/pool.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_membership.h"
#include "mld/mld_options.h"

#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define CLEAN_HERE MLD_STEP_OF("mld_proxy_clean_interface")

namespace {

// A group is off the list before it is dropped, so the last interface that holds it leaves it upstream.
void drop_groups(mld_interface *intr) {
  for (mld_group *group = mld_pop_group(intr); group != nullptr; group = mld_pop_group(intr)) {
    log_debug(CLEAN_HERE, "group address: %s", ADDRESS_TEXT(group->group));
    mld_proxy_drop_membership(group);
    mld_return_queries(group);
    list_add(&MldRouter.free_groups, &group->link);
  }
}

void restore_flags(int ioctl_socket, const mld_interface *intr) {
  ifreq request{};
  std::memcpy(request.ifr_name, intr->name.data(), sizeof(request.ifr_name));
  request.ifr_flags = static_cast<short>(intr->saved_flags);
  if (ioctl(ioctl_socket, SIOCSIFFLAGS, &request) < 0) {
    log_error(CLEAN_HERE, "Unable to restore interface flags for %s.", intr->name.data());
  }
}

void delete_mif(const mld_interface *intr) {
  mif6ctl request{};
  request.mif6c_mifi = static_cast<mifi_t>(intr->vif_index);
  kernel_request(CLEAN_HERE, request_log::both, MldRouter.socket, MLD_OPTION_MRT6_DEL_MIF, request);
}

void stop_interfaces() {
  for (mld_interface *intr = list_pop<mld_interface>(&MldRouter.interfaces); intr != nullptr;
       intr = list_pop<mld_interface>(&MldRouter.interfaces)) {
    mld_return_hosts(intr);
    if (intr->role != MLD_ROLE_UPSTREAM) {
      mld_proxy_clean_interface(intr);
      my_free(intr);
    }
  }
  // Not there when start-up failed before it was found.
  if (MldRouter.upstream_interface != nullptr) {
    mld_proxy_clean_interface(MldRouter.upstream_interface);
    my_free(MldRouter.upstream_interface);
    MldRouter.upstream_interface = nullptr;
  }
}

} // namespace

void mld_proxy_clean_interface(mld_interface *intr) {
  log_debug(MLD_HERE, "Cleaning interface: %s.", intr->name.data());
  drop_groups(intr);
  const int ioctl_socket = socket(AF_INET, SOCK_DGRAM, 0);
  if (ioctl_socket < 0) {
    log_error(MLD_HERE, "Unable to open socket for cleaning up.");
    return;
  }
  restore_flags(ioctl_socket, intr);
  delete_mif(intr);
  close(ioctl_socket);
  close(intr->socket);
}

void mld_proxy_stop() {
  log_debug(MLD_HERE, "Stop MLD Proxy.");
  stop_interfaces();
  free_pool(&MldRouter.free_hosts);
  free_pool(&MldRouter.free_queries);
  free_pool(&MldRouter.free_groups);
  // No option value: the kernel drops the MIFs and entries that are left, among them the (::, G) ones.
  const int on = 1;
  kernel_request(MLD_HERE, request_log::both, MldRouter.socket, MLD_OPTION_MRT6_DONE, &on, 0);
  log_memory_report(MLD_HERE, "MLD");
}

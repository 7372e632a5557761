#include "igmp/igmp_vif.h"

#include "core/index_table.h"

#include <cerrno>
#include <linux/mroute.h>
#include <linux/mroute6.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

static_assert(sizeof(vifctl) == 16);
static_assert(sizeof(mif6ctl) == 12);

void igmp_add_vif(log_site site, igmp_interface *intr) {
  add_dev_index(intr->ifindex);
  vifctl request{};
  request.vifc_vifi = static_cast<vifi_t>(intr->ifindex);
  request.vifc_lcl_addr.s_addr = intr->address;
  request.vifc_rmt_addr.s_addr = InAddrAny;
  if (setsockopt(IgmpRouter.socket, IPPROTO_IP, MRT_ADD_VIF, &request, sizeof(request)) == 0) {
    intr->vif_index = intr->ifindex;
    return;
  }
  log_error(site, "Adding VIF failed for network:%s Error:%d.", intr->name.data(), errno);
  del_dev_index(intr->ifindex);
  intr->vif_index = -1;
}

void igmp_add_mif(log_site site, igmp_interface *intr) {
  mif6ctl request{};
  request.mif6c_mifi = static_cast<mifi_t>(natpt_index_for(intr->ifindex));
  const auto device = static_cast<std::int32_t>(if_nametoindex(intr->name.data()));
  request.mif6c_pifi = static_cast<std::uint16_t>(natpt_index_for(device));
  if (setsockopt(IgmpRouter.socket, IPPROTO_IPV6, MRT6_ADD_MIF, &request, sizeof(request)) == 0) {
    log_debug(site, "Adding MIF for network: %s.", intr->name.data());
    intr->vif_index = intr->ifindex;
    return;
  }
  log_error(site, "Adding MIF failed for network:%s Error:%d.", intr->name.data(), errno);
  // A downstream interface has no slot: its index is then reported as not found, once for each refused MIF.
  del_dev_index(intr->ifindex);
  intr->vif_index = -1;
}

void igmp_delete_vif(log_site site, const igmp_interface *intr) {
  del_dev_index(intr->vif_index);
  vifctl request{};
  request.vifc_vifi = static_cast<vifi_t>(intr->vif_index);
  if (setsockopt(IgmpRouter.socket, IPPROTO_IP, MRT_DEL_VIF, &request, sizeof(request)) != 0) {
    log_error(site, "Deleting VIF failed for interface %s.", intr->name.data());
  }
}

void igmp_delete_mif(log_site site, const igmp_interface *intr) {
  mif6ctl request{};
  request.mif6c_mifi = static_cast<mifi_t>(natpt_index_for(intr->vif_index));
  if (setsockopt(IgmpRouter.socket, IPPROTO_IPV6, MRT6_DEL_MIF, &request, sizeof(request)) != 0) {
    log_error(site, "Deleting MIF failed for interface %s.", intr->name.data());
  }
}

#include "mld/mld_v1_report.h"

#include "core/log.h"
#include "mld/mld_group.h"
#include "mld/mld_membership.h"

void mld_router_version1_report_handler(mld_interface *intr, const ipv6_address &address) {
  if (is_link_local_group(address)) {
    log_debug(MLD_HERE, "[PACKET] group     : %s, skip local mcast!", ADDRESS_TEXT(address));
    return;
  }
  log_debug(MLD_HERE, "[PACKET] group     : %s", ADDRESS_TEXT(address));
  mld_group *group = mld_find_group(intr, address);
  if (group != nullptr) {
    group->group_timer = mld_membership_seconds();
    ++group->report_count;
    // "V2" for every refreshed group, MLDv1 ones included; kept for compatibility.
    log_debug(MLD_HERE, "V2 group %s timer refresh", ADDRESS_TEXT(address));
  } else {
    group = mld_take_group(MLD_HERE, address);
    if (group == nullptr) {
      return;
    }
    mld_link_group(intr, group);
    log_debug(MLD_HERE, "Add the group membership: %s", ADDRESS_TEXT(address));
    mld_proxy_add_membership(group);
  }
  mld_cancel_queries(group);
  group->state = MLD_GROUP_MEMBERS_PRESENT;
}

#include "igmp/igmp_leave.h"

#include "igmp/igmp_group.h"

void igmp_router_leave_handler(igmp_interface *intr, std::uint32_t address) {
  ++intr->leave_count;
  igmp_group *group = igmp_find_group(intr, address);
  if (group == nullptr) {
    log_debug(IGMP_HERE, "No group %s exist to leave.", IGMP_WORD_TEXT(address));
    return;
  }
  if (group->state == IGMP_GROUP_V1_MEMBERS_PRESENT) {
    log_debug(IGMP_HERE, "Receiving leave report with group: %s, interface: %s but in V1 state. Ignoring.",
              IGMP_WORD_TEXT(address), intr->name.data());
    return;
  }
  if (!igmp_queue_queries(group)) {
    log_error(IGMP_HERE, "No more free queries available.");
    return;
  }
  group->retransmit_timer = 0;
  group->v1_host_timer = 0;
  group->state = IGMP_GROUP_CHECKING_MEMBERSHIP;
  group->group_timer = IgmpRouter.last_member_query_count * IgmpRouter.last_member_query_interval;
}

#include "igmp/igmp_retransmission.h"

#include "igmp/igmp_group.h"
#include "igmp/igmp_membership.h"
#include "igmp/igmp_query.h"

// The steps below are one operation for the reader of the log.
#define RETRANSMIT_HERE IGMP_STEP_OF("igmp_router_retransmit_timer_expired")

namespace {

constexpr std::int32_t last_query_answer_seconds = 10;

void send_pending_query(const igmp_interface *intr, igmp_group *group, igmp_query *query) {
  igmp_router_send_query(intr, static_cast<std::uint8_t>(query->max_resp), query->group);
  list_add(&IgmpRouter.free_queries, &query->link);
  log_debug(RETRANSMIT_HERE, "set query interval.");
  group->retransmit_timer = IgmpRouter.last_member_query_interval;
  if (list_get_head(&group->queries) == nullptr) {
    log_debug(RETRANSMIT_HERE, "set 10s query interval.");
    group->retransmit_timer = last_query_answer_seconds;
  }
}

} // namespace

bool igmp_router_retransmit_timer_expired(igmp_interface *intr, igmp_group *group) {
  if (group->retransmit_timer >= 1) {
    log_debug(IGMP_HERE, "group: %s, retransmit_timer = %d", my_inet_ntoa(&group->group), group->retransmit_timer);
    --group->retransmit_timer;
    return true;
  }
  log_debug(IGMP_HERE, "enter");
  igmp_query *query = list_pop<igmp_query>(&group->queries);
  if (query == nullptr) {
    return igmp_end_group(IGMP_HERE, intr, group); // only a group timer that runs out writes a leave record
  }
  send_pending_query(intr, group, query);
  return true;
}

bool igmp_end_group(log_site site, igmp_interface *intr, igmp_group *group) {
  if (list_remove_node(&intr->groups, &group->link) == -1) {
    log_error(site, "Group Removal of %s unsuccesful.", my_inet_ntoa(&group->group));
    return false;
  }
  igmp_proxy_drop_membership(group);
  igmp_release_group(group);
  log_debug(site, "Interface: %s Group: %s State = No members present.", intr->name.data(),
            my_inet_ntoa(&group->group));
  return true;
}

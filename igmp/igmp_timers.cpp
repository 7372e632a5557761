#include "igmp/igmp_timers.h"

#include "igmp/igmp_group.h"
#include "igmp/igmp_query.h"
#include "igmp/igmp_retransmission.h"
#include "igmp/igmp_snooping.h"

#include <cstdio>

// The pass is one operation for the reader of the log.
#define TIMER_HERE IGMP_STEP_OF("igmp_router_timer_expired")

namespace {

// How the walk goes on after a group was looked at.
enum class walk_step {
  next_group,
  next_interface, // a group could not be unlinked
  end_of_pass     // a group's state makes no sense
};

// Only the very first query of the proxy, on whichever interface, is repeated early.
std::int32_t seconds_after_general_query() {
  if (IgmpStartUpQueryIsSend == 1) {
    return IgmpRouter.query_interval - 1;
  }
  IgmpStartUpQueryIsSend = 1;
  return IgmpRouter.startup_query_interval - 1;
}

void run_general_query(igmp_interface *intr) {
  if (intr->query_timer >= 1) {
    --intr->query_timer;
    return;
  }
  constexpr std::int32_t tenths_per_second = 10;
  constexpr std::int32_t even_codes = 0xfe;
  const std::int32_t max_resp = IgmpRouter.query_response_interval * tenths_per_second & even_codes;
  igmp_router_send_query(intr, static_cast<std::uint8_t>(max_resp), InAddrAny);
  intr->query_timer = seconds_after_general_query();
}

// A proxy that takes the querier role back sends its first query on the next tick.
void run_querier_timers(igmp_interface *intr) {
  if (intr->is_querier == 1) {
    run_general_query(intr);
  } else if (intr->other_querier_timer < 1) {
    log_debug(TIMER_HERE, "Interface %s We are now the querier.", intr->name.data());
    intr->is_querier = 1;
  } else {
    --intr->other_querier_timer;
  }
}

walk_step run_group(igmp_interface *intr, igmp_group *group) {
  bool is_in_order = true;
  switch (group->state) {
  case IGMP_GROUP_NO_MEMBERS:
    break; // never on this list
  case IGMP_GROUP_V1_MEMBERS_PRESENT:
    igmp_router_v1_host_timer_expired(intr, group);
    is_in_order = igmp_router_group_timer_expired(intr, group);
    break;
  case IGMP_GROUP_MEMBERS_PRESENT:
    is_in_order = igmp_router_group_timer_expired(intr, group);
    break;
  case IGMP_GROUP_CHECKING_MEMBERSHIP:
    is_in_order = igmp_router_retransmit_timer_expired(intr, group);
    break;
  default:
    log_error(TIMER_HERE, "Invalid group state %d for group: %s interface: %s.", group->state,
              my_inet_ntoa(&group->group), intr->name.data());
    return walk_step::end_of_pass;
  }
  return is_in_order ? walk_step::next_group : walk_step::next_interface;
}

walk_step run_groups(igmp_interface *intr) {
  for (igmp_group *group : list_records<igmp_group>(&intr->groups)) {
    const walk_step step = run_group(intr, group); // the group may be gone after its turn
    if (step != walk_step::next_group) {
      return step;
    }
  }
  return walk_step::next_interface;
}

} // namespace

void igmp_router_timer_expired() {
  for (igmp_interface *intr : list_records<igmp_interface>(&IgmpRouter.interfaces)) {
    if (intr->role == IGMP_ROLE_UPSTREAM) {
      continue;
    }
    run_querier_timers(intr);
    if (run_groups(intr) == walk_step::end_of_pass) {
      return;
    }
  }
}

void igmp_router_v1_host_timer_expired(const igmp_interface *intr, igmp_group *group) {
  if (group->v1_host_timer >= 1) {
    --group->v1_host_timer;
    return;
  }
  if (group->state != IGMP_GROUP_V1_MEMBERS_PRESENT) {
    const char *state = getGroupState(group);
    log_error(IGMP_HERE, "V1 host timer expired but group: %s for Interface: %s in %s.", my_inet_ntoa(&group->group),
              intr->name.data(), state != nullptr ? state : "(null)");
    return;
  }
  log_debug(IGMP_HERE, "IGMP v1 host timer expired.");
  group->state = IGMP_GROUP_MEMBERS_PRESENT;
}

bool igmp_router_group_timer_expired(igmp_interface *intr, igmp_group *group) {
  if (group->group_timer >= 1) {
    --group->group_timer;
    ++group->active_seconds;
    return true;
  }
  log_debug(IGMP_HERE, "Group timer expired.");
  std::puts("Group timer expired.");
  igmp_cancel_queries(group);
  log_debug(IGMP_HERE, "igmp_snooping_leave, host=%s, group=%s", IGMP_WORD_TEXT(InAddrAny),
            IGMP_WORD_TEXT(group->group));
  igmp_snooping_leave(InAddrAny, group->group);
  return igmp_end_group(IGMP_HERE, intr, group);
}

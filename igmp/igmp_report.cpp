#include "igmp/igmp_report.h"

#include "igmp/igmp_group.h"
#include "igmp/igmp_membership.h"

namespace {

// 224.0.0.0/24 (RFC 5771, section 4), never forwarded. A little-endian router finds none of the real ones by this test
// and tracks them.
bool is_local_control_group(std::uint32_t address) {
  constexpr std::uint32_t prefix_mask = 0xFFFFFF00;
  constexpr std::uint32_t prefix = 0xE0000000;
  return (address & prefix_mask) == prefix;
}

// Returns whether the proxy tracks the group of a report of that version.
bool check_address(log_site site, std::uint32_t address, int version) {
  if (is_local_control_group(address)) {
    return false;
  }
  if (igmp_is_special_group(address)) {
    log_debug(site, "IGMPv%d: Special addr, not to join it !.", version);
    return false;
  }
  return true;
}

void enter_state(log_site site, const igmp_interface *intr, igmp_group *group, igmp_group_state state) {
  group->state = state;
  log_debug(site, "Interface: %s Group: %s State = %s.", intr->name.data(), my_inet_ntoa(&group->group),
            getGroupState(group));
}

} // namespace

void igmp_router_version1_report_handler(igmp_interface *intr, std::uint32_t address) {
  ++intr->join_count;
  if (!check_address(IGMP_HERE, address, 1)) {
    return;
  }
  igmp_group *group = igmp_find_group(intr, address);
  if (group != nullptr) {
    group->group_timer = IgmpRouter.group_membership_interval;
    group->v1_host_timer = IgmpRouter.group_membership_interval;
  } else {
    group = igmp_take_group(IGMP_HERE, address);
    if (group == nullptr) {
      return;
    }
    group->v1_host_timer = IgmpRouter.group_membership_interval;
    list_add(&intr->groups, &group->link);
    igmp_proxy_add_membership(group);
  }
  igmp_cancel_queries(group);
  enter_state(IGMP_HERE, intr, group, IGMP_GROUP_V1_MEMBERS_PRESENT);
}

void igmp_router_version2_report_handler(igmp_interface *intr, std::uint32_t address) {
  ++intr->join_count;
  if (!check_address(IGMP_HERE, address, 2)) {
    return;
  }
  igmp_group *group = igmp_find_group(intr, address);
  if (group != nullptr) {
    group->group_timer = IgmpRouter.group_membership_interval;
    ++group->report_count;
    log_debug(IGMP_HERE, "V2 group %s timer refresh", IGMP_WORD_TEXT(address));
  } else {
    group = igmp_take_group(IGMP_HERE, address);
    if (group == nullptr) {
      return;
    }
    list_add(&intr->groups, &group->link);
    log_debug(IGMP_HERE, "Add the group membership: %s", IGMP_WORD_TEXT(address));
    igmp_proxy_add_membership(group);
  }
  igmp_cancel_queries(group);
  const bool has_v1_hosts = group->state == IGMP_GROUP_V1_MEMBERS_PRESENT;
  enter_state(IGMP_HERE, intr, group, has_v1_hosts ? IGMP_GROUP_V1_MEMBERS_PRESENT : IGMP_GROUP_MEMBERS_PRESENT);
}

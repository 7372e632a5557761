#include "igmp/igmp_group.h"

#include "igmp/igmp_wire.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr std::int32_t tenths_per_second = 10;
constexpr std::uint32_t special_group = 0xEFFFFFFA; // 239.255.255.250

constexpr std::array<const char *, 6> state_texts{"No Members Present state",        "Members Present state",
                                                  "Version 1 Members present state", "Version 2 Members present state",
                                                  "Checking Membership state",       nullptr};

igmp_query *take_query(std::uint32_t group) {
  igmp_query *query = list_pop<igmp_query>(&IgmpRouter.free_queries);
  if (query != nullptr) {
    *query = igmp_query{};
    query->type = IGMP_MEMBERSHIP_QUERY;
    query->max_resp = IgmpRouter.last_member_query_interval * tenths_per_second;
    query->group = group;
  }
  return query;
}

} // namespace

igmp_group *igmp_find_group(const igmp_interface *intr, std::uint32_t address) {
  for (igmp_group *group : list_records<igmp_group>(&intr->groups)) {
    if (group->group == address) {
      return group;
    }
  }
  return nullptr;
}

bool igmp_is_special_group(std::uint32_t address) { return address == special_group; }

const char *getGroupState(const igmp_group *group) {
  const std::int32_t state = group->state;
  if (state < 0 || state >= IGMP_GROUP_STATE_COUNT) {
    log_error(IGMP_HERE, "Incorrect IGMP router state :%d.", state);
  }
  const auto entry = static_cast<std::uint32_t>(state);
  return entry < state_texts.size() ? state_texts[entry] : nullptr;
}

igmp_group *igmp_take_group(log_site site, std::uint32_t address) {
  igmp_group *group = list_pop<igmp_group>(&IgmpRouter.free_groups);
  if (group == nullptr) {
    log_error(site, "No more free group available. Dropping membership request.");
    return nullptr;
  }
  *group = igmp_group{};
  group->owner = &IgmpRouter.upstream_name;
  group->group = address;
  group->group_timer = IgmpRouter.group_membership_interval;
  group->state = IGMP_GROUP_MEMBERS_PRESENT;
  group->report_count = 1;
  return group;
}

void igmp_return_queries(igmp_group *group) { list_move_all(&IgmpRouter.free_queries, &group->queries); }

void igmp_cancel_queries(igmp_group *group) {
  if (group->state == IGMP_GROUP_CHECKING_MEMBERSHIP) {
    igmp_return_queries(group);
  }
}

void igmp_release_group(igmp_group *group) {
  igmp_return_queries(group);
  group->state = IGMP_GROUP_NO_MEMBERS;
  list_add(&IgmpRouter.free_groups, &group->link);
}

bool igmp_queue_queries(igmp_group *group) {
  for (std::int32_t i = 0; i < IgmpRouter.last_member_query_count; ++i) {
    igmp_query *query = take_query(group->group);
    if (query == nullptr) {
      return false;
    }
    list_append(&group->queries, &query->link);
  }
  return true;
}

igmp_word_text igmp_word_to_log_text(std::uint32_t word) {
  std::array<std::uint8_t, sizeof(word)> bytes;
  std::memcpy(bytes.data(), &word, sizeof(word));
  igmp_word_text text;
  std::snprintf(text.characters.data(), text.characters.size(), "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
  return text;
}

#include "mld/mld_group.h"

#include "mld/mld_wire.h"

list_index MldGroupIndex{};

static_assert(MLD_GROUP_POOL_SIZE <= LIST_INDEX_PLACES);

namespace {

mld_query *take_query(const ipv6_address &group) {
  mld_query *query = list_pop<mld_query>(&MldRouter.free_queries);
  if (query != nullptr) {
    *query = mld_query{};
    query->type = ICMPV6_MGM_QUERY;
    query->max_resp = MldRouter.last_member_query_interval * MLD_TENTHS_PER_SECOND;
    query->group = group;
  }
  return query;
}

} // namespace

std::uint32_t mld_group_key(const mld_group *group) { return address_key(group->group); }

mld_group *mld_find_group(const mld_interface *intr, const ipv6_address &address) {
  for (const list_place *place = list_index_first(MldGroupIndex, address_key(address)); place != nullptr;
       place = list_index_next(MldGroupIndex, place)) {
    auto *group = reinterpret_cast<mld_group *>(place->node);
    if (place->on == &intr->groups && is_same_address(group->group, address)) {
      return group;
    }
  }
  return nullptr;
}

void mld_link_group(mld_interface *intr, mld_group *group) {
  list_index_add(MldGroupIndex, &intr->groups, &group->link, mld_group_key(group));
}

int mld_unlink_group(mld_interface *intr, mld_group *group) {
  return list_index_remove(MldGroupIndex, &intr->groups, &group->link, mld_group_key(group));
}

bool mld_take_off(log_site site, mld_interface *intr, mld_group *group) {
  if (mld_unlink_group(intr, group) == -1) {
    log_error(site, "Group Removal of %s unsuccesful.", ADDRESS_TEXT(group->group));
    return false;
  }
  return true;
}

mld_group *mld_pop_group(mld_interface *intr) {
  auto *group = list_first<mld_group>(&intr->groups);
  if (group != nullptr) {
    list_index_pop(MldGroupIndex, &intr->groups, mld_group_key(group));
  }
  return group;
}

mld_group *mld_take_group(log_site site, const ipv6_address &address) {
  mld_group *group = list_pop<mld_group>(&MldRouter.free_groups);
  if (group == nullptr) {
    log_error(site, "No more free group available. Dropping membership request.");
    return nullptr;
  }
  *group = mld_group{};
  group->owner = &MldRouter.upstream_name;
  group->group = address;
  group->group_timer = mld_membership_seconds();
  group->state = MLD_GROUP_MEMBERS_PRESENT;
  group->report_count = 1;
  return group;
}

void mld_return_queries(mld_group *group) { list_move_all(&MldRouter.free_queries, &group->queries); }

void mld_cancel_queries(mld_group *group) {
  if (group->state == MLD_GROUP_CHECKING_MEMBERSHIP) {
    mld_return_queries(group);
  }
}

void mld_clear_group(mld_group *group) {
  mld_return_queries(group);
  group->state = MLD_GROUP_NO_MEMBERS;
  group->source_count = 0;
}

void mld_release_group(mld_group *group) {
  mld_clear_group(group);
  list_add(&MldRouter.free_groups, &group->link);
}

bool mld_queue_queries(mld_group *group) {
  for (std::uint32_t i = 1; i < MldRouter.last_member_query_count; ++i) {
    mld_query *query = take_query(group->group);
    if (query == nullptr) {
      return false;
    }
    list_append(&group->queries, &query->link);
  }
  return true;
}

void mld_start_checking(mld_group *group, std::int32_t first_query_s) {
  group->state = MLD_GROUP_CHECKING_MEMBERSHIP;
  group->group_timer = to_int32(MldRouter.last_member_query_count * MldRouter.last_member_query_interval);
  group->retransmit_word = 0;
  group->retransmit_timer = first_query_s;
}

bool mld_has_lasting_any_source(mld_group *group) {
  const mld_source *slot = mld_find_source(group, In6AddrAny);
  return slot != nullptr && slot->source_timer >= MLD_LASTING_ANY_SOURCE_S;
}

mld_source *mld_find_source(mld_group *group, const ipv6_address &address) {
  for (mld_source &slot : mld_sources(group)) {
    if (is_same_address(slot.address, address)) {
      return &slot;
    }
  }
  return nullptr;
}

mld_source *mld_append_source(mld_group *group, const ipv6_address &address, std::uint32_t forward) {
  const std::size_t used = mld_sources(group).size();
  if (used == group->sources.size()) {
    return nullptr;
  }
  mld_source &slot = group->sources[used];
  slot.address = address;
  slot.source_timer = mld_source_seconds();
  slot.forward = forward;
  group->source_count = to_int32(used + 1);
  return &slot;
}

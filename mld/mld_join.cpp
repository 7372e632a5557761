#include "mld/mld_join.h"

#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_membership.h"

#define ADD_SRC_HERE MLD_STEP_OF("mld_router_v2_add_src_group")

namespace {

std::uint32_t forward_of_new_source() { return MldBlock == 0 ? 1 : 0; }

// Gives up the upstream sources that had run out. For a group of one slot there is no request: the sender's host record
// is deleted once more instead, which logs its lookup and, for a report sent from ::, can take another host's record.
void give_up_expired_sources(mld_interface *intr, mld_group *group, const ipv6_address &sender) {
  for (const mld_source &slot : mld_sources(group)) {
    if (slot.source_timer > 0) {
      continue;
    }
    log_debug(ADD_SRC_HERE, "Block source: %s in group %s.", ADDRESS_TEXT(slot.address), ADDRESS_TEXT(group->group));
    if (group->source_count > 1) {
      mld_leave_source(ADD_SRC_HERE, request_log::either, group->group, slot.address);
    } else {
      mld_router_host_del(intr, group->group, sender, In6AddrAny);
    }
  }
}

// Returns false when the group could not be unlinked.
bool drop_idle_group(mld_interface *intr, mld_group *group, const ipv6_address &sender) {
  log_debug(ADD_SRC_HERE, "group retransmit_timer < 0, drop this group: %s", ADDRESS_TEXT(group->group));
  mld_router_host_del(intr, group->group, sender, In6AddrAny);
  if (!mld_take_off(ADD_SRC_HERE, intr, group)) {
    return false;
  }
  mld_proxy_drop_membership(group);
  give_up_expired_sources(intr, group, sender);
  mld_release_group(group);
  return true;
}

// Refreshes the any-source slot, whatever is left of its timer, or appends one.
void refresh_any_source(mld_group *group) {
  mld_source *slot = mld_find_source(group, In6AddrAny);
  if (slot == nullptr) {
    mld_append_source(group, In6AddrAny, 1);
    return;
  }
  slot->forward = 1;
  slot->source_timer = mld_source_seconds();
}

void trace_groups(const mld_interface *intr, const mld_group *added) {
  for (const mld_group *group : list_records<const mld_group>(&intr->groups)) {
    log_debug(ADD_SRC_HERE, "group database = %s", ADDRESS_TEXT(group->group));
  }
  log_debug(ADD_SRC_HERE, "group = %s", ADDRESS_TEXT(added->group));
}

void join_all_sources(mld_interface *intr, mld_group *group, const ipv6_address &sender) {
  mld_router_host_add(intr, group->group, sender, In6AddrAny);
  mld_proxy_add_membership(group);
  mld_cancel_queries(group);
}

void create_all_sources_group(mld_interface *intr, const ipv6_address &address, const ipv6_address &sender) {
  log_debug(ADD_SRC_HERE, "add the gernel mcast %s", ADDRESS_TEXT(address));
  mld_group *group = mld_take_group(ADD_SRC_HERE, address);
  if (group == nullptr) {
    return;
  }
  refresh_any_source(group);
  trace_groups(intr, group);
  mld_link_group(intr, group);
  join_all_sources(intr, group, sender);
}

void add_all_sources(mld_interface *intr, mld_group *group, const ipv6_address &address, const ipv6_address &sender) {
  if (group != nullptr && group->retransmit_timer > 0) {
    log_debug(ADD_SRC_HERE, "v2 update gernel mcast %s", ADDRESS_TEXT(address));
    group->group_timer = mld_membership_seconds();
    refresh_any_source(group);
    join_all_sources(intr, group, sender);
    return;
  }
  if (group != nullptr && !drop_idle_group(intr, group, sender)) {
    return;
  }
  create_all_sources_group(intr, address, sender);
}

void join_source(mld_interface *intr, mld_group *group, const ipv6_address &source, const ipv6_address &sender) {
  mld_router_host_add(intr, group->group, sender, source);
  mldv2_add_src_membership(group, source);
}

// Returns the new group, or null when the pool is empty.
mld_group *create_group_with_source(mld_interface *intr, const ipv6_address &address, const ipv6_address &source,
                                    const ipv6_address &sender) {
  mld_group *group = mld_take_group(ADD_SRC_HERE, address);
  if (group == nullptr) {
    return nullptr;
  }
  mld_append_source(group, source, forward_of_new_source());
  mld_link_group(intr, group);
  join_source(intr, group, source, sender);
  return group;
}

// `is_covered`: an any-source listener already brings the source.
void refresh_or_append_source(mld_interface *intr, mld_group *group, const ipv6_address &source,
                              const ipv6_address &sender, bool is_covered) {
  group->group_timer = mld_membership_seconds();
  mld_source *slot = mld_find_source(group, source);
  const bool is_known = slot != nullptr;
  if (is_known) {
    slot->source_timer = mld_source_seconds();
  } else {
    slot = mld_append_source(group, source, forward_of_new_source());
    if (slot == nullptr) {
      return; // all ten slots are taken
    }
  }
  if (!is_covered) {
    join_source(intr, group, source, sender);
  }
  if (is_known) {
    slot->forward = 1; // after the join, which blocks a source that was not wanted until now
  }
}

void add_listed_sources(mld_interface *intr, mld_group *group, const mld_record &record, const ipv6_address &sender) {
  const bool is_covered = group != nullptr && mld_has_lasting_any_source(group);
  const ipv6_address address = mld_record_group(record);
  for (std::size_t i = 0; i < mld_record_source_count(record); ++i) {
    const ipv6_address source = mld_record_source(record, i);
    if (group == nullptr) {
      group = create_group_with_source(intr, address, source, sender);
      if (group == nullptr) {
        return;
      }
    } else {
      refresh_or_append_source(intr, group, source, sender, is_covered);
    }
    mld_cancel_queries(group);
  }
}

} // namespace

void mld_router_v2_add_src_group(mld_interface *intr, const mld_record &record, mld_joined_sources with_sources,
                                 const ipv6_address &sender) {
  ++intr->join_count;
  const ipv6_address address = mld_record_group(record);
  mld_group *group = mld_find_group(intr, address);
  if (with_sources == mld_joined_sources::all) {
    add_all_sources(intr, group, address, sender);
  } else {
    add_listed_sources(intr, group, record, sender);
  }
}

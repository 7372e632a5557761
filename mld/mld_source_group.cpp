#include "mld/mld_source_group.h"

#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_membership.h"

#include <algorithm>

// The steps of each operation carry its name in the log.
#define ADD_SRC_HERE MLD_STEP_OF("mld_router_v2_add_src_group")
#define LEAVE_HERE MLD_STEP_OF("mld_router_v2_leave_group")

namespace {

// An any-source slot that lives this long covers every listed source; one in its last seconds may be leaving.
constexpr std::int32_t lasting_any_source_seconds = 11;

std::int32_t membership_seconds() { return static_cast<std::int32_t>(MldRouter.group_membership_interval); }

std::int32_t source_seconds() { return static_cast<std::int32_t>(MldRouter.source_interval); }

std::uint32_t forward_of_new_source() { return MldBlock == 0 ? 1 : 0; }

// Gives up the upstream sources that had run out. A group of one such slot has no membership of that source alone:
// the sender's host record is deleted once more, which finds nothing.
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
  if (mld_unlink_group(intr, group) == -1) {
    log_error(ADD_SRC_HERE, "Group Removal of %s unsuccesful.", ADDRESS_TEXT(group->group));
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
  slot->source_timer = source_seconds();
}

void trace_groups(const mld_interface *intr, const mld_group *added) {
  for (const mld_group *group = list_first<mld_group>(&intr->groups); group != nullptr; group = list_after(group)) {
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
    group->group_timer = membership_seconds();
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

// Returns the new group, or null when the pool is dry.
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
  group->group_timer = membership_seconds();
  mld_source *slot = mld_find_source(group, source);
  const bool is_known = slot != nullptr;
  if (is_known) {
    slot->source_timer = source_seconds();
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
  const mld_source *any_source = group != nullptr ? mld_find_source(group, In6AddrAny) : nullptr;
  const bool is_covered = any_source != nullptr && any_source->source_timer >= lasting_any_source_seconds;
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

// Ends a group whose only source ran out. Unlike other ends its record goes to the tail of the pool.
int end_group_of_last_source(mld_interface *intr, mld_group *group, const ipv6_address &source) {
  log_debug(LEAVE_HERE, "Last one source: %s in group: %s", ADDRESS_TEXT(source), ADDRESS_TEXT(group->group));
  const int unlinked = mld_unlink_group(intr, group);
  if (unlinked == 0) {
    mld_proxy_drop_membership(group);
    mld_clear_group(group);
    list_append(&MldRouter.free_groups, &group->link);
  }
  return unlinked;
}

void remove_expired_source(mld_group *group, mld_source *expired) {
  const ipv6_address source = expired->address; // the slot is overwritten below
  if (mld_find_source(group, In6AddrAny) != nullptr) {
    log_debug(LEAVE_HERE, "Exist null source.");
  } else {
    mld_block_source(LEAVE_HERE, group->group, source);
  }
  log_debug(LEAVE_HERE, "Remove source: %s from group: %s", ADDRESS_TEXT(source), ADDRESS_TEXT(group->group));
  const std::span<mld_source> slots = mld_sources(group);
  std::copy(expired + 1, slots.data() + slots.size(), expired);
  --group->source_count;
}

void start_checking(mld_group *group) {
  group->state = MLD_GROUP_CHECKING_MEMBERSHIP;
  group->retransmit_word = 0;
  group->retransmit_timer = 0;
  for (mld_source &slot : mld_sources(group)) {
    slot.source_timer = 0;
  }
  group->group_timer =
      static_cast<std::int32_t>(MldRouter.last_member_query_count * MldRouter.last_member_query_interval);
  log_debug(LEAVE_HERE, "Set group timer to %d", group->group_timer);
}

} // namespace

void mld_router_v2_add_src_group(mld_interface *intr, const mld_record &record, joined_sources with_sources,
                                 const ipv6_address &sender) {
  ++intr->join_count;
  const ipv6_address address = mld_record_group(record);
  mld_group *group = mld_find_group(intr, address);
  if (with_sources == joined_sources::all) {
    add_all_sources(intr, group, address, sender);
  } else {
    add_listed_sources(intr, group, record, sender);
  }
}

int mld_router_v2_leave_group(mld_interface *intr, const mld_record &record, const ipv6_address *who) {
  if (who != MLD_SOURCE_EXPIRED) {
    ++intr->leave_count;
  }
  const ipv6_address address = mld_record_group(record);
  mld_group *group = mld_find_group(intr, address);
  if (group == nullptr) {
    log_debug(LEAVE_HERE, "Cannot find group: %s on interface: %s.", ADDRESS_TEXT(address), intr->name.data());
    return 0;
  }
  if (who == MLD_SOURCE_EXPIRED) {
    const ipv6_address source = mld_record_source(record, 0);
    mld_source *expired = mld_find_source(group, source);
    if (expired != nullptr && group->source_count == 1) {
      return end_group_of_last_source(intr, group, source);
    }
    if (expired != nullptr) {
      remove_expired_source(group, expired);
    }
  }
  if (!mld_queue_queries(group)) {
    log_error(LEAVE_HERE, "No more free queries available.");
    return 0;
  }
  start_checking(group);
  return who != MLD_SOURCE_EXPIRED ? mld_router_host_del(intr, address, *who, In6AddrAny) : 0;
}

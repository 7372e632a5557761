#include "mld/mld_leave.h"

#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_membership.h"

#include <algorithm>

#define LEAVE_HERE MLD_STEP_OF("mld_router_v2_leave_group")

namespace {

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

// Every source has run out for the queries that follow, whoever else wants it.
void clear_source_timers(mld_group *group) {
  for (mld_source &slot : mld_sources(group)) {
    slot.source_timer = 0;
  }
}

} // namespace

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
  clear_source_timers(group);
  mld_start_checking(group, 0);
  log_debug(LEAVE_HERE, "Set group timer to %d", group->group_timer);
  return who != MLD_SOURCE_EXPIRED ? mld_router_host_del(intr, address, *who, In6AddrAny) : 0;
}

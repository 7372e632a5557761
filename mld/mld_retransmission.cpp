#include "mld/mld_retransmission.h"

#include "mld/mld_forwarding.h"
#include "mld/mld_group.h"
#include "mld/mld_membership.h"

#include <algorithm>

#define RETRANSMIT_HERE MLD_STEP_OF("mld_router_retransmit_timer_expired")

namespace {

bool is_wanted(const mld_source &slot) { return slot.source_timer > 0; }

void block_expired_sources(mld_group *group, bool is_suppressed) {
  for (const mld_source &slot : mld_sources(group)) {
    if (is_wanted(slot)) {
      continue;
    }
    if (!is_suppressed) {
      mld_block_source(RETRANSMIT_HERE, group->group, slot.address);
    }
    mld_delete_entry(RETRANSMIT_HERE, slot.address, group->group);
    if (!is_suppressed && slot.forward == 0) {
      mld_delete_entry(RETRANSMIT_HERE, In6AddrAny, group->group);
    }
  }
}

void keep_wanted_sources(mld_group *group) {
  std::array<mld_source, MLD_MAX_SOURCES> kept{};
  std::size_t count = 0;
  for (const mld_source &slot : mld_sources(group)) {
    if (is_wanted(slot)) {
      log_debug(RETRANSMIT_HERE, "unblock origin %s", ADDRESS_TEXT(slot.address));
      kept[count++] = slot;
    }
  }
  group->sources = kept;
  group->source_count = to_int32(count);
}

// No signal to the snooping program here, only when a group timer runs out.
void end_group(const mld_interface *intr, mld_group *group) {
  log_debug(RETRANSMIT_HERE, "remove group mcast %s", ADDRESS_TEXT(group->group));
  mld_retire_group(group);
  log_debug(RETRANSMIT_HERE, "Network:%s Group:%s State = No members present.", intr->name.data(),
            ADDRESS_TEXT(group->group));
}

} // namespace

mld_group *mld_router_retransmit_timer_expired(mld_interface *intr, mld_group *group, bool is_suppressed) {
  mld_group *following = list_after(group);
  const std::span<const mld_source> slots = mld_sources(group);
  if (std::any_of(slots.begin(), slots.end(), is_wanted)) {
    block_expired_sources(group, is_suppressed);
    keep_wanted_sources(group);
    // The group timer stays where the leave put it, so the group may end soon although sources are wanted.
    group->state = MLD_GROUP_MEMBERS_PRESENT;
    return following;
  }
  if (!mld_take_off(RETRANSMIT_HERE, intr, group)) {
    return nullptr;
  }
  end_group(intr, group);
  return following;
}

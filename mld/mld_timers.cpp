#include "mld/mld_timers.h"

#include "core/log.h"
#include "core/memory.h"
#include "mld/mld_filter.h"
#include "mld/mld_group.h"
#include "mld/mld_leave.h"
#include "mld/mld_membership.h"
#include "mld/mld_query.h"
#include "mld/mld_record.h"
#include "mld/mld_snooping.h"

#include <cstdio>

#define TIMER_HERE MLD_STEP_OF("mld_router_timer_expired")

namespace {

using record_scratch = std::span<std::uint8_t, MLD_ONE_SOURCE_RECORD_BYTES>;

// How the walk goes on after a group was looked at.
enum class walk_step {
  next_group,
  next_interface, // a group could not be unlinked
  end_of_pass     // a group's state makes no sense
};

// Blank lines that set the start of a query sequence apart in the log.
void write_two_empty_lines() { std::fputs("\n\n", stdout); }

void run_election(mld_interface *intr) {
  if (intr->is_querier == 1) {
    return;
  }
  if (intr->other_querier_timer < 1) {
    log_debug(TIMER_HERE, "We are now the querier on network %s .", intr->name.data());
    intr->is_querier = 1;
    return;
  }
  log_debug(TIMER_HERE, "Querier Present Timer = %d", intr->other_querier_timer);
  --intr->other_querier_timer;
}

// Only the very first query of the proxy, on whichever interface, is repeated early.
std::int32_t seconds_after_general_query() {
  if (MldStartUpQueryIsSend == 1) {
    return to_int32(MldRouter.query_interval) - 1;
  }
  MldStartUpQueryIsSend = 1;
  return to_int32(MldRouter.startup_query_interval) - 1;
}

void run_general_query(mld_interface *intr) {
  if (intr->is_querier != 1) {
    return;
  }
  if (intr->query_timer >= 1) {
    --intr->query_timer;
    return;
  }
  constexpr std::uint32_t lowest_bit = 1;
  write_two_empty_lines();
  log_debug(TIMER_HERE, "[QUERY TIMER EXPIRED] interface: %s.", intr->name.data());
  const std::uint32_t max_resp = MldRouter.query_response_interval * MLD_TENTHS_PER_SECOND & ~lowest_bit;
  mld_router_v2_send_query(intr, static_cast<std::uint8_t>(max_resp), In6AddrAny);
  intr->query_timer = seconds_after_general_query();
}

void expire_source(mld_interface *intr, mld_group *group, const mld_source &slot, record_scratch scratch) {
  ++intr->timeout_count;
  log_debug(TIMER_HERE, "source expired group: %s, source: %s", ADDRESS_TEXT(group->group), ADDRESS_TEXT(slot.address));
  const mld_record record = mld_make_one_source_record(scratch, MLD2_BLOCK_OLD_SOURCES, group->group, slot.address);
  mld_tmp_origin = slot.address;
  if (slot.address != In6AddrAny && slot.forward != 0) {
    mld_router_v2_block_old_sources(intr, record, In6AddrAny);
  } else {
    mld_router_v2_leave_group(intr, record, MLD_SOURCE_EXPIRED);
  }
}

// Slots may move down and all their timers may be cleared while they are walked; what follows then runs out at once.
void run_source_timers(mld_interface *intr, mld_group *group, record_scratch scratch) {
  std::size_t used = mld_sources(group).size();
  for (std::size_t i = 0; i < used; ++i) {
    mld_source &slot = group->sources[i];
    ++group->active_seconds;
    if (--slot.source_timer > 0) {
      continue;
    }
    expire_source(intr, group, slot, scratch);
    if (group->state == MLD_GROUP_NO_MEMBERS) {
      return; // back in the pool with its last source
    }
    used = mld_sources(group).size();
  }
}

walk_step run_members_present(mld_interface *intr, mld_group *group, record_scratch scratch) {
  if (group->group_timer < 1) {
    return mld_router_group_timer_expired(intr, group) ? walk_step::next_group : walk_step::next_interface;
  }
  --group->group_timer;
  if (group->group_timer == 0) {
    ++intr->timeout_count;
  }
  run_source_timers(intr, group, scratch);
  return walk_step::next_group;
}

// Returns the group to go on with; null ends the interface. The group timer does not run in this state.
mld_group *run_checking_membership(mld_interface *intr, mld_group *group, mld_group *following) {
  const bool is_due = group->retransmit_timer < 1;
  if (is_due) {
    write_two_empty_lines();
    log_debug(TIMER_HERE, "[GROUP STATE] MLD_ROUTER_CHECKING_MEMBERSHIP, retransmit_timer = %d",
              group->retransmit_timer);
  } else {
    --group->retransmit_timer;
  }
  for (mld_source &slot : mld_sources(group)) {
    --slot.source_timer;
  }
  return is_due ? mld_router_v2_send_query_more_src(intr, group) : following;
}

walk_step run_groups(mld_interface *intr, record_scratch scratch) {
  mld_group *group = list_first<mld_group>(&intr->groups);
  while (group != nullptr) {
    mld_group *following = list_after(group); // the group may be gone after its turn
    walk_step step = walk_step::next_group;
    switch (group->state) {
    case MLD_GROUP_NO_MEMBERS:
      break; // never on this list
    case MLD_GROUP_MEMBERS_PRESENT:
      step = run_members_present(intr, group, scratch);
      break;
    case MLD_GROUP_CHECKING_MEMBERSHIP:
      following = run_checking_membership(intr, group, following);
      break;
    default:
      log_error(TIMER_HERE, "Invalid group state %d for group:%s interface:%s.", to_int32(group->state),
                ADDRESS_TEXT(group->group), intr->name.data());
      return walk_step::end_of_pass;
    }
    if (step != walk_step::next_group) {
      return step;
    }
    group = following;
  }
  return walk_step::next_interface;
}

void run_interfaces(record_scratch scratch) {
  for (mld_interface *intr : list_records<mld_interface>(&MldRouter.interfaces)) {
    if (intr->role == MLD_ROLE_UPSTREAM) {
      continue;
    }
    run_election(intr);
    run_general_query(intr);
    if (run_groups(intr, scratch) == walk_step::end_of_pass) {
      return;
    }
  }
}

} // namespace

void mld_router_timer_expired() {
  auto *scratch = static_cast<std::uint8_t *>(my_malloc(MLD_ONE_SOURCE_RECORD_BYTES));
  if (scratch == nullptr) {
    log_error(TIMER_HERE, "Unable to allocate memory for MLD group record.");
    return;
  }
  run_interfaces(record_scratch(scratch, MLD_ONE_SOURCE_RECORD_BYTES));
  my_free(scratch);
}

bool mld_router_group_timer_expired(mld_interface *intr, mld_group *group) {
  log_debug(MLD_HERE, "Group timer expired.");
  mld_cancel_queries(group);
  mld_snooping_leave(In6AddrAny, group->group);
  if (!mld_take_off(MLD_HERE, intr, group)) {
    return false;
  }
  mld_retire_group(group);
  log_debug(MLD_HERE, "interface:%s group: %s state = No members present.", intr->name.data(),
            ADDRESS_TEXT(group->group));
  return true;
}

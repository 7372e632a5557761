// Group records between the pool and an interface's list, and their source slots.
#pragma once

#include "core/log.h"
#include "mld/mld_router.h"

#include <algorithm>
#include <span>

// The interface's record of a group; null if it has none.
mld_group *mld_find_group(const mld_interface *intr, const ipv6_address &address);

// Of all interfaces' groups, by address.
extern list_index MldGroupIndex;
std::uint32_t mld_group_key(const mld_group *group);

// Puts a group in front of the interface's.
void mld_link_group(mld_interface *intr, mld_group *group);

// Takes a group off the interface's list. Returns 0, or -1 if it is not there.
int mld_unlink_group(mld_interface *intr, mld_group *group);

// The same for the end of a group. Returns false after logging for `site` that the group stays.
bool mld_take_off(log_site site, mld_interface *intr, mld_group *group);

// Takes off the interface's first group; null if it has none.
mld_group *mld_pop_group(mld_interface *intr);

// Takes a record from the pool for a group with members: zeroed, full group timer, no sources, on no list yet. When
// the pool is empty, logs for `site` and returns null; the report is lost then.
mld_group *mld_take_group(log_site site, const ipv6_address &address);

// Gives the group's pending queries back to their pool.
void mld_return_queries(mld_group *group);

// The same, if queries are what the group waits for: a report cancels them.
void mld_cancel_queries(mld_group *group);

// Ends a group that was unlinked from its interface: queries back, state 0, no sources. The record is then pushed on
// `free_groups` by the caller or with mld_release_group.
void mld_clear_group(mld_group *group);
void mld_release_group(mld_group *group);

// Queues `last_member_query_count` - 1 queries for the group. Returns false at the first one for which the pool is
// empty (the caller says so); those queued before stay.
bool mld_queue_queries(mld_group *group);

// Lets the queued queries decide about the group: state, group timer, and the first query in `first_query_s` seconds. A
// leave clears the timers of the slots itself.
void mld_start_checking(mld_group *group, std::int32_t first_query_s);

// What a report loads into a group's timer and into a source's.
inline std::int32_t mld_membership_seconds() { return to_int32(MldRouter.group_membership_interval); }
inline std::int32_t mld_source_seconds() { return to_int32(MldRouter.source_interval); }

// Whether an any-source slot with at least MLD_LASTING_ANY_SOURCE_S left covers every listed source.
bool mld_has_lasting_any_source(mld_group *group);

// Slot of a source; null if the group has none for it. With :: it finds the any-source slot.
mld_source *mld_find_source(mld_group *group, const ipv6_address &address);

// Appends a slot with a full source timer. Returns null when all slots are taken: the source is not recorded.
mld_source *mld_append_source(mld_group *group, const ipv6_address &address, std::uint32_t forward);

// The used slots; never more than there are. Inline: every tick walks the slots of all groups.
inline std::span<mld_source> mld_sources(mld_group *group) {
  const auto used = static_cast<std::size_t>(std::clamp(group->source_count, 0, MLD_MAX_SOURCES));
  return std::span<mld_source>(group->sources).first(used);
}

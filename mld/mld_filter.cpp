#include "mld/mld_filter.h"

#include "mld/mld_forwarding.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_join.h"
#include "mld/mld_membership.h"

#include <algorithm>

#define EXCLUDE_HERE MLD_STEP_OF("mld_router_v2_exclude_group")

namespace {

// Allow and block handle no more sources than a group can hold. Logs a record that has none.
std::size_t handled_sources(log_site site, const mld_record &record) {
  const std::size_t count = std::min(mld_record_source_count(record), std::size_t{MLD_MAX_SOURCES});
  if (count == 0) {
    log_debug(site, "No sources need to be added.");
  }
  return count;
}

bool is_skipped(log_site site, const ipv6_address &group) {
  if (!is_link_local_group(group)) {
    return false;
  }
  log_debug(site, "Skip local multicast group address: %s", ADDRESS_TEXT(group));
  return true;
}

// Null after logging. The line says "skip" in either step, though ALLOW goes on and creates the group.
mld_group *find_recorded_group(log_site site, const mld_interface *intr, const ipv6_address &address) {
  mld_group *group = mld_find_group(intr, address);
  if (group == nullptr) {
    log_debug(site, "Cannot find group: %s on interface: %s, skip new source record.", ADDRESS_TEXT(address),
              intr->name.data());
  }
  return group;
}

// A record sent from :: carries no usable source: the one that expired last takes its place, in the packet, too.
ipv6_address take_source(const mld_record &record, std::size_t index, const ipv6_address &sender) {
  if (sender == In6AddrAny) {
    mld_record_set_source(record, index, mld_tmp_origin);
  }
  return mld_record_source(record, index);
}

// What an exclude record makes of one source.
enum class excluded_source {
  refreshed, // already known as not wanted: no request to the kernel
  kept,      // wanted on this interface since before: its entry is renewed
  left,      // to be left upstream
  no_slot    // all ten slots are taken
};

// `is_known_group`: the group was there before this record.
excluded_source mark_known_source(mld_group *group, mld_source *slot, bool is_known_group, const ipv6_address &sender) {
  slot->source_timer = mld_source_seconds();
  if (!is_known_group || sender == In6AddrAny) {
    slot->forward = 0;
    return excluded_source::left;
  }
  if (slot->forward == 1) {
    return excluded_source::kept;
  }
  if (group->state == MLD_GROUP_CHECKING_MEMBERSHIP) {
    group->state = MLD_GROUP_MEMBERS_PRESENT;
  }
  group->group_timer = mld_membership_seconds();
  return excluded_source::refreshed;
}

excluded_source mark_new_source(mld_group *group, const ipv6_address &source) {
  const int count_before = group->source_count;
  if (mld_append_source(group, source, 0) == nullptr) {
    return excluded_source::no_slot;
  }
  log_debug(EXCLUDE_HERE, "add teh group mcast %s, origin %s, num src %d", ADDRESS_TEXT(group->group),
            ADDRESS_TEXT(source), count_before);
  return excluded_source::left;
}

// The entry (S, G) towards this interface only and, after a leave, one for every other source. The kernel forwards by
// both, so the source still arrives here if another interface keeps it flowing; other interfaces lose the group's
// stream until their next report.
void renew_entries(const mld_interface *intr, const mld_group *group, const ipv6_address &source, bool is_left) {
  mld_outputs only_here{};
  mld_set_output(only_here, intr->vif_index);
  if (is_left) {
    mld_leave_source(EXCLUDE_HERE, request_log::both, group->group, source);
  }
  if (mld_add_entry(EXCLUDE_HERE, source, group->group, only_here) && is_left) {
    mld_add_entry(EXCLUDE_HERE, In6AddrAny, group->group, only_here);
  }
}

void exclude_source(const mld_interface *intr, mld_group *group, const ipv6_address &source, bool is_known_group,
                    const ipv6_address &sender) {
  mld_source *slot = mld_find_source(group, source);
  const excluded_source outcome =
      slot != nullptr ? mark_known_source(group, slot, is_known_group, sender) : mark_new_source(group, source);
  if (outcome == excluded_source::refreshed || outcome == excluded_source::no_slot) {
    return;
  }
  // The pending queries of a group that was being checked stay with it; they go back when it is released.
  if (group->state == MLD_GROUP_CHECKING_MEMBERSHIP) {
    group->state = MLD_GROUP_MEMBERS_PRESENT;
  }
  group->group_timer = mld_membership_seconds();
  renew_entries(intr, group, source, outcome == excluded_source::left);
}

// `has_any_source`: an any-source listener already brings every source.
void allow_source(mld_group *group, const ipv6_address &source, bool has_any_source) {
  mld_source *slot = mld_find_source(group, source);
  if (slot != nullptr) {
    slot->source_timer = mld_source_seconds();
    slot->forward = 1;
  } else {
    if (mld_append_source(group, source, 1) == nullptr) {
      return; // all ten slots are taken
    }
    group->group_timer = mld_membership_seconds();
    group->retransmit_word = 0;
    group->retransmit_timer = 0;
  }
  if (!has_any_source) {
    mldv2_add_src_membership(group, source);
  }
}

} // namespace

void mld_router_v2_exclude_group(mld_interface *intr, const mld_record &record, const ipv6_address &sender) {
  MldBlock = 0;
  const ipv6_address address = mld_record_group(record);
  const bool is_known_group = mld_find_group(intr, address) != nullptr;
  if (!is_known_group) {
    MldBlock = 1;
    mld_router_v2_add_src_group(intr, record, mld_joined_sources::listed, sender);
  }
  mld_group *group = mld_find_group(intr, address);
  if (group == nullptr) {
    log_debug(EXCLUDE_HERE, "null group %s", ADDRESS_TEXT(address));
    return;
  }
  for (std::size_t i = 0; i < mld_record_source_count(record); ++i) {
    exclude_source(intr, group, mld_record_source(record, i), is_known_group, sender);
  }
  MldBlock = 1;
}

void mld_router_v2_allow_new_sources(mld_interface *intr, const mld_record &record, const ipv6_address &sender) {
  const std::size_t count = handled_sources(MLD_HERE, record);
  if (count == 0) {
    return;
  }
  log_debug(MLD_HERE, "nsrcs = %d", to_int32(count));
  const ipv6_address address = mld_record_group(record);
  if (is_skipped(MLD_HERE, address)) {
    return;
  }
  mld_group *group = find_recorded_group(MLD_HERE, intr, address);
  if (group == nullptr) {
    mld_router_v2_add_src_group(intr, record, mld_joined_sources::listed, sender);
    return;
  }
  const bool has_any_source = mld_find_source(group, In6AddrAny) != nullptr;
  if (has_any_source) {
    log_debug(MLD_HERE, "Exist null source.");
  }
  for (std::size_t i = 0; i < count; ++i) {
    const ipv6_address source = take_source(record, i, sender);
    log_debug(MLD_HERE, "allow new source: %s", ADDRESS_TEXT(source));
    mld_router_host_add(intr, address, sender, source);
    allow_source(group, source, has_any_source);
    mld_cancel_queries(group);
  }
}

void mld_router_v2_block_old_sources(mld_interface *intr, const mld_record &record, const ipv6_address &sender) {
  const std::size_t count = handled_sources(MLD_HERE, record);
  if (count == 0) {
    return;
  }
  const ipv6_address address = mld_record_group(record);
  if (is_skipped(MLD_HERE, address)) {
    return;
  }
  mld_group *group = find_recorded_group(MLD_HERE, intr, address);
  if (group == nullptr) {
    return;
  }
  for (std::size_t i = 0; i < count; ++i) {
    mld_router_host_del(intr, address, sender, mld_record_source(record, i));
  }
  if (mld_find_source(group, In6AddrAny) != nullptr) {
    log_debug(MLD_HERE, "Exist Any-Source address.");
  }
  for (std::size_t i = 0; i < count; ++i) {
    const ipv6_address source = take_source(record, i, sender);
    log_debug(MLD_HERE, "Block the source: %s", ADDRESS_TEXT(source));
    log_debug(MLD_HERE, "Add %d queries to queue.", to_int32(MldRouter.last_member_query_count - 1));
    if (!mld_queue_queries(group)) {
      log_error(MLD_HERE, " No more free queries available.");
      return;
    }
    if (mld_find_source(group, source) == nullptr) {
      continue; // the query is queued all the same, and waits until the group is checked
    }
    // The slots keep their timers: a source that other hosts refreshed lately is not even asked for.
    mld_start_checking(group, to_int32(MldRouter.last_member_query_interval));
    log_debug(MLD_HERE, "group: %s, set retransmit_timer = %d", ADDRESS_TEXT(group->group), group->retransmit_timer);
  }
}

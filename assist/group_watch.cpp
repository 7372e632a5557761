#include "assist/group_watch.h"

#include "assist/group_outputs.h"
#include "assist/group_question.h"
#include "assist/interface_watch.h"
#include "assist/listener_timer.h"
#include "assist/notification_socket.h"
#include "assist/remedy.h"
#include "assist/retry.h"
#include "assist/upstream_membership.h"

#include <algorithm>

namespace {

constexpr std::int64_t ms_per_tenth = 100;

// tarnwick writes an entry again within a millisecond of deleting it, unless the group is gone.
constexpr tenths rewrite_tenths = 3;

// More entries of one (::, G) than that were never seen; bounds the asking.
constexpr int most_copies = 4;

// (::, G) as it stands behind its shield.
void delete_any_source_entry(watched_group &group) {
  for (int i = 0; i < most_copies; ++i) {
    if (!delete_entry(GroupOutputs.socket, In6AddrAny, group.group, GroupOutputs.upstream)) {
      break;
    }
    ++group.own_deletes;
  }
}

void delete_shield(watched_group &group) {
  if (group.has_shield) {
    delete_entry(GroupOutputs.socket, In6AddrAny, group.group, SHIELD_PARENT);
  }
  group.has_shield = false;
}

void free_record(watched_group &group) {
  end_upstream_membership(group);
  group.is_used = false;
}

void free_if_empty(watched_group &group) {
  if (group.entry_count == 0 && group.own_deletes == 0) {
    free_record(group);
  }
}

// What nobody listens to goes with its record; an entry that is in use is left to tarnwick.
void drop_record(watched_group &group) {
  delete_shield(group);
  if (standing_on(group) == 0) {
    for (const cache_entry &entry : entries_of(group)) {
      delete_newest_entry(GroupOutputs.socket, entry.origin, group.group, GroupOutputs.upstream);
    }
  }
  free_record(group);
}

watched_group &find_or_take(const ipv6_address &address) {
  watched_group *group = find_watched_group(address);
  if (group == nullptr) {
    group = take_watched_group(address);
  }
  if (group == nullptr) {
    drop_record(*group_that_ends_first());
    group = take_watched_group(address);
  }
  return *group;
}

// An interface among the outputs has the group: tarnwick says so by the entry.
void learn_listeners(watched_group &group, mif_set outputs) {
  for (std::size_t place = 0; place < group.ends_at.size(); ++place) {
    if ((mif_at(place) & outputs) != 0 && group.ends_at[place] == NOT_TIMED) {
      group.ends_at[place] = end_of_silence(tenths_now());
    }
  }
}

// Read before the notification of our own request: older than that, so it was overwritten.
void handle_overwritten(watched_group &group, cache_entry &entry, mif_set reported) {
  const mif_set missing = reported & standing_on(group) & ~entry.outputs;
  if (missing != 0 && is_on(remedy::add_outputs)) {
    write_outputs(group, entry, entry.outputs | missing);
  }
}

// tarnwick's request took the shield for the entry, and now two stand there that look alike. The newer one goes.
void part_from_shield(watched_group &group) {
  if (delete_entry(GroupOutputs.socket, In6AddrAny, group.group, GroupOutputs.upstream)) {
    ++group.own_deletes;
  }
  group.has_shield = false;
}

// Outputs that tarnwick left out although their interfaces have the group stay.
mif_set wanted_outputs(const watched_group &group, const cache_entry &entry, mif_set reported) {
  return is_on(remedy::add_outputs) ? reported | (entry.outputs & standing_on(group)) : reported;
}

// This and the next return whether the change was tarnwick's.
bool handle_entry_written(watched_group &group, cache_entry &entry, mif_set reported) {
  if (awaits_own_message(group, &entry)) {
    const bool is_own = reported == entry.outputs;
    if (is_own) {
      set_awaits_own_message(group, &entry, false);
    } else {
      handle_overwritten(group, entry, reported);
    }
    return !is_own;
  }
  const mif_set wanted = wanted_outputs(group, entry, reported);
  learn_listeners(group, reported);
  const bool is_any_source = entry.origin == In6AddrAny;
  const bool was_rewritten = group.gone_at != NOT_TIMED; // the delete before it took the shield
  if (is_any_source && group.has_shield && !was_rewritten) {
    part_from_shield(group);
  }
  entry.outputs = reported;
  if (wanted != reported || (is_any_source && group.own_deletes > 0)) {
    write_outputs(group, entry, wanted);
  }
  if (is_any_source) {
    group.gone_at = NOT_TIMED;
    renew_shield(group);
  }
  return true;
}

bool handle_any_source_deleted(watched_group &group, const cache_entry *entry, bool is_shield) {
  if (is_shield) {
    group.has_shield = false;
  } else if (group.own_deletes > 0) {
    --group.own_deletes;
    free_if_empty(group);
    return false;
  }
  if (entry == nullptr) {
    return false; // what is left of a shield that was ours to delete
  }
  if (is_on(remedy::bridge_refresh)) {
    group.gone_at = tenths_now() + rewrite_tenths;
  } else {
    remove_entry(group, entry);
    free_if_empty(group);
  }
  return true;
}

bool handle_entry_deleted(watched_group &group, notification &event) {
  const bool is_shield = event.input == 0;
  const cache_entry *entry = find_entry(group, event.origin);
  if (event.origin == In6AddrAny) {
    event.outputs = is_shield && entry != nullptr ? entry->outputs : event.outputs;
    return handle_any_source_deleted(group, entry, is_shield);
  }
  if (entry != nullptr) {
    remove_entry(group, entry);
    free_if_empty(group);
  }
  return true;
}

void end_any_source(watched_group &group) {
  group.gone_at = NOT_TIMED;
  delete_any_source_entry(group);
  delete_shield(group);
  if (const cache_entry *entry = find_entry(group, In6AddrAny); entry != nullptr) {
    remove_entry(group, entry);
  }
  free_if_empty(group);
}

// Takes the interfaces' outputs out of every entry of the group. Returns those that some entry had.
mif_set end_on(watched_group &group, mif_set ended) {
  const bool is_left = standing_on(group) == 0;
  if (!is_on(is_left ? remedy::clear_left_groups : remedy::remove_outputs)) {
    return 0;
  }
  mif_set taken_out = 0;
  for (cache_entry &entry : entries_of(group)) {
    if ((entry.outputs & ended) != 0) {
      taken_out |= entry.outputs & ended;
      write_outputs(group, entry, entry.outputs & ~ended);
    }
  }
  return taken_out;
}

tenths earliest_deadline() {
  tenths earliest = NOT_TIMED;
  const auto consider = [&earliest](tenths deadline) {
    if (deadline != NOT_TIMED && (earliest == NOT_TIMED || deadline < earliest)) {
      earliest = deadline;
    }
  };
  for (const watched_group &group : watched_groups()) {
    if (group.is_used) {
      consider(group.gone_at);
      std::for_each(group.ends_at.begin(), group.ends_at.end(), consider);
    }
  }
  return earliest;
}

} // namespace

void start_group_watch(int socket) {
  GroupOutputs = {};
  GroupOutputs.socket = socket;
  GroupTable.used = 0; // writing all of it would cost its pages
}

void handle_groups_upstream(std::uint32_t upstream_index) {
  GroupOutputs.upstream = upstream_index;
  for (watched_group &group : watched_groups()) {
    group.entry_count = 0;
    group.awaits_own_message = 0;
    group.own_deletes = 0;
    group.has_shield = false;
    group.gone_at = NOT_TIMED;
    end_upstream_membership(group); // it may be one on an earlier bearer of the index
  }
  read_group_entries();
  for (watched_group &group : watched_groups()) {
    free_if_empty(group);
  }
}

void handle_groups_released() {
  for (watched_group &group : watched_groups()) {
    end_upstream_membership(group);
    if (!group.is_used || !group.is_changed) {
      continue;
    }
    for (const cache_entry &entry : entries_of(group)) {
      for (int i = 0; i < most_copies; ++i) {
        if (!delete_newest_entry(GroupOutputs.socket, entry.origin, group.group, GroupOutputs.upstream)) {
          break;
        }
      }
    }
  }
  GroupTable.used = 0;
  GroupOutputs.upstream = 0;
}

void stop_group_watch() {
  for (watched_group &group : watched_groups()) {
    if (group.is_used && group.gone_at != NOT_TIMED) {
      end_any_source(group);
    }
    if (group.is_used) {
      drop_record(group);
    }
  }
  GroupTable.used = 0;
}

void forget_listeners_on(std::size_t place) {
  for (watched_group &group : watched_groups()) {
    if (place < group.ends_at.size()) {
      group.ends_at[place] = NOT_TIMED;
      fit_upstream_membership(group);
    }
  }
}

bool watch_group_entry(notification &event) {
  const bool is_shield = event.input == 0; // it is never registered
  if (GroupOutputs.upstream == 0 || event.group[0] != IPV6_MULTICAST_FIRST_BYTE) {
    return !is_shield;
  }
  if (event.kind == notification_kind::entry_gone) {
    watched_group *group = find_watched_group(event.group);
    if (group == nullptr) {
      return !is_shield;
    }
    const bool is_tarnwicks = handle_entry_deleted(*group, event);
    fit_upstream_membership(*group);
    return is_tarnwicks;
  }
  if (event.input != GroupOutputs.upstream) {
    return !is_shield;
  }
  watched_group &group = find_or_take(event.group);
  group.is_changed |= event.is_static;
  cache_entry *known = find_entry(group, event.origin);
  cache_entry &entry = known != nullptr ? *known : *add_entry(group, event.origin);
  const bool is_tarnwicks = handle_entry_written(group, entry, event.outputs);
  fit_upstream_membership(group);
  return is_tarnwicks;
}

std::int64_t next_group_deadline_ms() {
  const tenths deadline = earliest_deadline();
  return deadline == NOT_TIMED ? NO_DEADLINE : deadline * ms_per_tenth;
}

void handle_group_deadlines() {
  const tenths now = tenths_now();
  const auto is_due = [now](tenths deadline) { return deadline != NOT_TIMED && deadline <= now; };
  for (watched_group &group : watched_groups()) {
    if (!group.is_used) {
      continue;
    }
    mif_set ended = 0;
    for (std::size_t place = 0; place < group.ends_at.size(); ++place) {
      if (is_due(group.ends_at[place])) {
        group.ends_at[place] = NOT_TIMED;
        ended |= mif_at(place);
      }
    }
    if (ended != 0) {
      ask_where_group_ended(group.group, end_on(group, ended));
    }
    const bool is_gone = is_due(group.gone_at);
    if (is_gone) {
      end_any_source(group);
    }
    if (ended != 0 || is_gone) {
      fit_upstream_membership(group);
    }
  }
}

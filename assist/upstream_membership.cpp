#include "assist/upstream_membership.h"

#include "assist/group_outputs.h"
#include "assist/membership.h"
#include "assist/remedy.h"
#include "assist/report.h"

#include <cerrno>

namespace {

// Entries that tarnwick leaves behind keep their outputs where that remedy is off.
bool has_any_source_listeners(watched_group &group) {
  const cache_entry *entry = find_entry(group, In6AddrAny);
  return entry != nullptr && (entry->outputs & standing_on(group)) != 0;
}

void widen(watched_group &group) {
  group.is_widened = join_group(GroupOutputs.socket, group.group, GroupOutputs.upstream);
  const int reason = group.is_widened ? 0 : errno;
  if (reason != 0 && GroupOutputs.join_refusal != reason) {
    say_refused(reason, "cannot join a group on the upstream interface");
  }
  GroupOutputs.join_refusal = reason;
}

} // namespace

void fit_upstream_membership(watched_group &group) {
  if (!is_on(remedy::widen_upstream)) {
    return;
  }
  if (!has_any_source_listeners(group)) {
    end_upstream_membership(group);
  } else if (!group.is_widened && group.entry_count > 1) {
    widen(group);
  }
}

void end_upstream_membership(watched_group &group) {
  if (group.is_widened) {
    leave_group(GroupOutputs.socket, group.group, GroupOutputs.upstream);
  }
  group.is_widened = false;
}

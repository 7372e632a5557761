#include "assist/group_outputs.h"

#include "assist/interface_watch.h"
#include "assist/remedy.h"
#include "assist/report.h"
#include "assist/retry.h"

#include <cerrno>

group_outputs GroupOutputs{};

namespace {

constexpr std::int64_t ms_per_tenth = 100;

void note_refusal(const char *what) {
  const int reason = errno;
  if (GroupOutputs.refusal != reason) {
    say_refused(reason, "cannot %s of the forwarding cache", what);
  }
  GroupOutputs.refusal = reason;
}

} // namespace

tenths tenths_now() { return static_cast<tenths>(monotonic_ms() / ms_per_tenth); }

mif_set mif_at(std::size_t place) {
  const watched_interface *downstream = downstream_at(place);
  return downstream != nullptr && downstream->index != 0 ? output_bit(downstream->index) : 0;
}

mif_set standing_on(const watched_group &group) {
  mif_set standing = 0;
  for (std::size_t place = 0; place < group.ends_at.size(); ++place) {
    if (group.ends_at[place] != NOT_TIMED) {
      standing |= mif_at(place);
    }
  }
  return standing;
}

void write_outputs(watched_group &group, cache_entry &entry, mif_set outputs) {
  const std::uint32_t parent = GroupOutputs.upstream;
  const bool is_shielded = entry.origin == In6AddrAny;
  const bool is_put = is_shielded ? put_entry(GroupOutputs.socket, entry.origin, group.group, parent, outputs)
                                  : put_newest_entry(GroupOutputs.socket, entry.origin, group.group, parent, outputs);
  if (!is_put) {
    note_refusal("change an entry");
    return;
  }
  entry.outputs = outputs;
  group.is_changed = true;
  set_awaits_own_message(group, &entry, true);
}

void renew_shield(watched_group &group) {
  if (!is_on(remedy::bridge_refresh)) {
    return;
  }
  group.has_shield = put_shield(GroupOutputs.socket, group.group);
  group.is_changed |= group.has_shield;
  if (!group.has_shield) {
    note_refusal("shield an entry");
  }
}

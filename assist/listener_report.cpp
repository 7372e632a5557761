// What hosts say about groups that stand in the forwarding cache.
#include "assist/group_outputs.h"
#include "assist/group_watch.h"
#include "assist/host_report.h"
#include "assist/listener_timer.h"
#include "assist/remedy.h"
#include "assist/upstream_membership.h"

#include <algorithm>

namespace {

constexpr std::size_t most_sources = MOST_ENTRIES - 1; // tarnwick looks at no more in one record

// A report that asks for any source wants every entry of the group: the kernel takes a source's own entry first.
bool asks_for(const mld_record *listed, const ipv6_address &origin) {
  if (listed == nullptr) {
    return true;
  }
  const std::size_t count = std::min(mld_record_source_count(*listed), most_sources);
  for (std::size_t i = 0; i < count; ++i) {
    if (mld_record_source(*listed, i) == origin) {
      return true;
    }
  }
  return false;
}

// tarnwick writes an entry by itself where its own join upstream goes through; where the source was joined already it
// does not.
void add_output(watched_group &group, mif_set joined, const mld_record *listed) {
  for (cache_entry &entry : entries_of(group)) {
    if ((entry.outputs & joined) != joined && asks_for(listed, entry.origin)) {
      write_outputs(group, entry, entry.outputs | joined);
    }
  }
}

void handle_join(watched_group &group, std::size_t place, const mld_record *listed) {
  if (is_on(remedy::add_outputs)) {
    add_output(group, mif_at(place), listed);
  }
  fit_upstream_membership(group);
}

void handle_block(watched_group &group, const host_report &report) {
  const std::size_t count = std::min(mld_record_source_count(*report.listed), most_sources);
  if (count > 0) {
    time_block(group, report.place, count, tenths_now());
  }
}

} // namespace

void handle_report(const host_report &report) {
  watched_group *group = report.place < MOST_LISTENER_LANS ? find_watched_group(report.group) : nullptr;
  if (group == nullptr) {
    return;
  }
  switch (report.wish) {
  case host_wish::any_source:
  case host_wish::listed:
    time_join(*group, report.place, tenths_now());
    handle_join(*group, report.place, report.listed);
    break;
  case host_wish::all_but_listed:
    // A join as any other for the timers; the entries that tarnwick makes of it are its own choice.
    time_join(*group, report.place, tenths_now());
    break;
  case host_wish::none:
    if (!report.is_version_1) { // tarnwick takes no notice of an MLDv1 done
      time_leave(*group, report.place, tenths_now());
    }
    break;
  case host_wish::not_listed:
    handle_block(*group, report);
    break;
  case host_wish::nothing_new:
    break;
  }
}

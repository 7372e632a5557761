// What hosts say about groups that stand in the forwarding cache.
#include "assist/group_outputs.h"
#include "assist/group_watch.h"
#include "assist/listener_timer.h"
#include "assist/remedy.h"

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

// `listed`: the record with the sources asked for; null = any source.
void handle_join(const ipv6_address &address, std::size_t place, const mld_record *listed) {
  watched_group *group = find_watched_group(address);
  if (group == nullptr) {
    return;
  }
  time_join(*group, place, tenths_now());
  if (is_on(remedy::add_outputs)) {
    add_output(*group, mif_at(place), listed);
  }
}

void handle_leave(const ipv6_address &address, std::size_t place) {
  if (watched_group *group = find_watched_group(address); group != nullptr) {
    time_leave(*group, place, tenths_now());
  }
}

void handle_block(const mld_record &record, std::size_t place) {
  const std::size_t count = std::min(mld_record_source_count(record), most_sources);
  watched_group *group = find_watched_group(mld_record_group(record));
  if (group != nullptr && count > 0) {
    time_block(*group, place, count, tenths_now());
  }
}

// An exclude record is a join as any other for the timers; the entries that tarnwick makes of it are its own choice.
void handle_exclude(const mld_record &record, std::size_t place) {
  if (mld_record_claimed_sources(record) == 0) {
    handle_join(mld_record_group(record), place, nullptr);
  } else if (watched_group *group = find_watched_group(mld_record_group(record)); group != nullptr) {
    time_join(*group, place, tenths_now());
  }
}

void handle_include(const mld_record &record, std::size_t place) {
  if (mld_record_claimed_sources(record) == 0) {
    handle_leave(mld_record_group(record), place);
  } else {
    handle_join(mld_record_group(record), place, &record);
  }
}

void handle_record(const mld_record &record, std::size_t place) {
  switch (mld_record_kind(record)) {
  case MLD2_MODE_IS_INCLUDE:
  case MLD2_CHANGE_TO_INCLUDE:
    handle_include(record, place);
    break;
  case MLD2_MODE_IS_EXCLUDE:
  case MLD2_CHANGE_TO_EXCLUDE:
    handle_exclude(record, place);
    break;
  case MLD2_ALLOW_NEW_SOURCES:
    if (mld_record_claimed_sources(record) != 0) {
      handle_join(mld_record_group(record), place, &record);
    }
    break;
  case MLD2_BLOCK_OLD_SOURCES:
    handle_block(record, place);
    break;
  default:
    break;
  }
}

} // namespace

void handle_listener_message(mld_message &message, std::size_t place) {
  if (place >= MOST_LISTENER_LANS) {
    return;
  }
  if (type_of(message) == ICMPV6_MGM_REPORT) {
    handle_join(group_of(message), place, nullptr);
    return;
  }
  mld_records records = records_of(message);
  for (mld_record record; next_record(records, record);) {
    handle_record(record, place);
  }
}

#include "assist/group_table.h"

#include "core/bulk_memory.h"
#include <algorithm>

IN_BULK_MEMORY group_table GroupTable{};

static_assert(sizeof(watched_group) <= 288);

namespace {

std::size_t place_of(const watched_group &group, const cache_entry *entry) {
  return static_cast<std::size_t>(entry - group.entries.data());
}

tenths last_end(const watched_group &group) { return *std::max_element(group.ends_at.begin(), group.ends_at.end()); }

} // namespace

std::span<watched_group> watched_groups() { return std::span{GroupTable.groups}.first(GroupTable.used); }

std::span<cache_entry> entries_of(watched_group &group) { return std::span{group.entries}.first(group.entry_count); }

watched_group *find_watched_group(const ipv6_address &address) {
  for (watched_group &group : watched_groups()) {
    if (group.is_used && is_same_address(group.group, address)) {
      return &group;
    }
  }
  return nullptr;
}

cache_entry *find_entry(watched_group &group, const ipv6_address &origin) {
  for (cache_entry &entry : entries_of(group)) {
    if (is_same_address(entry.origin, origin)) {
      return &entry;
    }
  }
  return nullptr;
}

watched_group *take_watched_group(const ipv6_address &address) {
  const auto is_free = [](const watched_group &group) { return !group.is_used; };
  const std::span<watched_group> known = watched_groups();
  const auto freed = std::ranges::find_if(known, is_free);
  if (freed == known.end() && GroupTable.used == GroupTable.groups.size()) {
    return nullptr;
  }
  watched_group &taken = freed != known.end() ? *freed : GroupTable.groups[GroupTable.used++];
  taken = {};
  taken.group = address;
  taken.is_used = true;
  return &taken;
}

watched_group *group_that_ends_first() {
  return &*std::min_element(
      GroupTable.groups.begin(), GroupTable.groups.end(),
      [](const watched_group &left, const watched_group &right) { return last_end(left) < last_end(right); });
}

cache_entry *add_entry(watched_group &group, const ipv6_address &origin) {
  if (group.entry_count == group.entries.size()) {
    const bool is_first_any = group.entries[0].origin == In6AddrAny;
    remove_entry(group, &group.entries[is_first_any ? 1 : 0]);
  }
  cache_entry &added = group.entries[group.entry_count++];
  added = {origin, 0};
  set_awaits_own_message(group, &added, false);
  return &added;
}

void remove_entry(watched_group &group, const cache_entry *entry) {
  const std::size_t place = place_of(group, entry);
  const std::uint32_t before = group.awaits_own_message & ((1U << place) - 1);
  const std::uint32_t behind = static_cast<std::uint32_t>(group.awaits_own_message) >> (place + 1) << place;
  group.awaits_own_message = static_cast<std::uint16_t>(before | behind);
  const std::span<cache_entry> entries = entries_of(group);
  std::copy(entries.begin() + static_cast<std::ptrdiff_t>(place) + 1, entries.end(),
            entries.begin() + static_cast<std::ptrdiff_t>(place));
  --group.entry_count;
}

bool awaits_own_message(const watched_group &group, const cache_entry *entry) {
  return (group.awaits_own_message >> place_of(group, entry) & 1U) != 0;
}

void set_awaits_own_message(watched_group &group, const cache_entry *entry, bool awaits) {
  const std::uint32_t bit = 1U << place_of(group, entry);
  const std::uint32_t others = group.awaits_own_message & ~bit;
  group.awaits_own_message = static_cast<std::uint16_t>(awaits ? others | bit : others);
}

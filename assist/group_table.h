// The groups that stand in the kernel's forwarding cache: their entries, and until when tarnwick has them on which
// interface. Nothing is allocated; when all records are taken, the group whose listeners end first makes room.
#pragma once

#include "assist/group_entry.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::size_t MOST_GROUPS = 128;      // as many as tarnwick has records
inline constexpr std::size_t MOST_LISTENER_LANS = 8; // as many as tarnwick takes on its command line
inline constexpr std::size_t MOST_ENTRIES = 11;      // any source, and as many listed ones as tarnwick has slots

// Tenths of a second of the monotonic clock.
using tenths = std::uint32_t;

inline constexpr tenths NOT_TIMED = 0;

struct cache_entry {
  ipv6_address origin; // :: = any source
  mif_set outputs;     // as the kernel reported them last, or asked of it since
};

struct watched_group {
  ipv6_address group;
  std::array<tenths, MOST_LISTENER_LANS> ends_at; // by place on the command line; NOT_TIMED = tarnwick has it not there
  tenths gone_at;                   // (::, G) was deleted; unless it is written again by then the group is gone
  std::uint16_t awaits_own_message; // bit i: the notification of our last request about entries[i] has not been read
  std::uint8_t leaving;             // bit per interface: the last message heard was a leave
  std::uint8_t own_deletes;         // of ours about (::, G), whose notifications have not been read
  bool is_used;
  bool is_changed; // one of its entries was written by us, and stays when tarnwick ends
  bool has_shield;
  bool is_widened; // we are a member upstream, for all sources
  std::uint8_t entry_count;
  std::array<cache_entry, MOST_ENTRIES> entries;
};

struct group_table {
  std::size_t used; // records beyond were never taken
  std::array<watched_group, MOST_GROUPS> groups;
};

extern group_table GroupTable;

std::span<watched_group> watched_groups(); // free ones among them
std::span<cache_entry> entries_of(watched_group &group);

// Null if there is none.
watched_group *find_watched_group(const ipv6_address &address);
cache_entry *find_entry(watched_group &group, const ipv6_address &origin);

// A record for a group that has none yet: a free one, or null.
watched_group *take_watched_group(const ipv6_address &address);

// The one that should make room; only of use when none is free.
watched_group *group_that_ends_first();

// An entry for an origin that has none yet; when all are taken, the one that was added first makes room.
cache_entry *add_entry(watched_group &group, const ipv6_address &origin);
void remove_entry(watched_group &group, const cache_entry *entry);

bool awaits_own_message(const watched_group &group, const cache_entry *entry);
void set_awaits_own_message(watched_group &group, const cache_entry *entry, bool awaits);

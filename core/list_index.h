// Finds the records of some lists by key, without walking. The lists are walked as any others; only linking and
// unlinking go through here.
#pragma once

#include "core/list.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t LIST_INDEX_PLACES = 128;  // as many as a pool has records: it cannot overflow
inline constexpr std::size_t LIST_INDEX_BUCKETS = 256; // power of two; twice the places, so most hold one or none

// A list whose records an index finds. A type of its own, so that list_add and the like do not take it: a record
// linked without the index's knowledge does not compile. Nobody else touches `records` but to read.
struct indexed_list {
  list records;
};

inline list_node *list_get_head(const indexed_list *of) { return of->records.head; }
template <typename record> record *list_first(const indexed_list *of) { return list_first<record>(&of->records); }
template <typename record> list_walk<record> list_records(const indexed_list *of) {
  return list_records<record>(&of->records);
}

// Which list a record is on.
struct list_place {
  const indexed_list *on;
  list_node *node;
  std::uint8_t behind; // next place of the same bucket, or of those given back
};

// Places are numbered from 1, 0 means none: a zeroed index is an empty one.
struct list_index {
  std::array<std::uint8_t, LIST_INDEX_BUCKETS> buckets;
  std::array<list_place, LIST_INDEX_PLACES> places;
  std::uint8_t given_back; // first of the places that were used and are free again
  std::uint8_t used;       // places that were ever used
};

// The places whose records may have this key, on whatever list: the caller compares. Null ends them.
const list_place *list_index_first(const list_index &index, std::uint32_t key);
const list_place *list_index_next(const list_index &index, const list_place *place);

// As list_add, list_append, list_remove_node and list_remove, which takes the first record. A record's key is what it
// is found by, folded into 32 bits; it is the same when the record is linked and when it is unlinked.
void list_index_add(list_index &index, indexed_list *into, list_node *node, std::uint32_t key);
void list_index_append(list_index &index, indexed_list *into, list_node *node, std::uint32_t key);
int list_index_remove(list_index &index, indexed_list *from, list_node *node, std::uint32_t key);
list_node *list_index_pop(list_index &index, indexed_list *from, std::uint32_t key_of_first);

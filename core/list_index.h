// Finds the records of some lists by key, and takes them off, without walking. The lists stay what they are for
// everybody who walks them; only linking and unlinking have to go through here. With 128 groups and hosts the walks
// were the largest part of what a report costs beside the kernel's work and the log.
#pragma once

#include "core/list.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t LIST_INDEX_PLACES = 128;  // as many as a pool has records: it cannot overflow
inline constexpr std::size_t LIST_INDEX_BUCKETS = 256; // power of two; twice the places, so most hold one or none

// Where a record stands.
struct list_place {
  const list *on;
  list_node *node;
  list_node *previous; // null: the record is the list's head
  std::uint8_t behind; // next place of the same bucket, or of those given back
};

// Places are numbered from 1, 0 means none: a zeroed index is an empty one.
struct list_index {
  std::array<std::uint8_t, LIST_INDEX_BUCKETS> buckets;
  std::array<list_place, LIST_INDEX_PLACES> places;
  std::uint8_t given_back;  // first of the places that were used and are free again
  std::uint8_t used;        // places that were ever used
  list_node *last_appended; // end of the list that was appended to last; null: not known
};

// What a record is found by, folded into 32 bits. It does not change while the record is on a list.
using record_key = std::uint32_t (*)(const list_node *node);

// The places whose records may have this key, on whatever list: the caller compares. Null ends them.
const list_place *list_index_first(const list_index &index, std::uint32_t key);
const list_place *list_index_next(const list_index &index, const list_place *place);

// As list_add and list_append.
void list_index_add(list_index &index, list *into, list_node *node, record_key key_of);
void list_index_append(list_index &index, list *into, list_node *node, record_key key_of);

// As list_remove: the first node, null if the list is empty.
list_node *list_index_pop(list_index &index, list *from, record_key key_of);

// As list_remove_node, which it calls: 0, or -1 if the list does not hold the node.
int list_index_remove(list_index &index, list *from, list_node *node, record_key key_of);

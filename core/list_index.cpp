#include "core/list_index.h"

static_assert(LIST_INDEX_PLACES <= UINT8_MAX, "places are numbered in one byte");

namespace {

constexpr std::uint8_t no_place = 0;

// The top byte of the product depends on all bits of the key, and keys that differ in one byte seldom share it.
std::size_t bucket_of(std::uint32_t key) {
  constexpr std::uint32_t golden_ratio = 0x9e3779b1; // 2^32 / 1.618...
  constexpr unsigned top_byte = 24;
  static_assert(LIST_INDEX_BUCKETS == std::size_t{1} << (32 - top_byte));
  return key * golden_ratio >> top_byte;
}

list_place &place_at(list_index &index, std::uint8_t number) { return index.places[number - std::size_t{1}]; }

std::uint8_t take_place(list_index &index) {
  const std::uint8_t number = index.given_back;
  if (number != no_place) {
    index.given_back = place_at(index, number).behind;
    return number;
  }
  return index.used < LIST_INDEX_PLACES ? ++index.used : no_place;
}

// There is a place for every record of a pool, so none goes without.
void note_place(list_index &index, const indexed_list *on, list_node *node, std::uint32_t key) {
  const std::uint8_t number = take_place(index);
  if (number != no_place) {
    std::uint8_t &bucket = index.buckets[bucket_of(key)];
    place_at(index, number) = list_place{on, node, bucket};
    bucket = number;
  }
}

void give_back_place(list_index &index, const list_node *node, std::uint32_t key) {
  std::uint8_t *number = &index.buckets[bucket_of(key)];
  while (*number != no_place && place_at(index, *number).node != node) {
    number = &place_at(index, *number).behind;
  }
  if (*number != no_place) {
    const std::uint8_t freed = *number;
    list_place &place = place_at(index, freed);
    *number = place.behind;
    place = list_place{nullptr, nullptr, index.given_back};
    index.given_back = freed;
  }
}

} // namespace

const list_place *list_index_first(const list_index &index, std::uint32_t key) {
  const std::uint8_t number = index.buckets[bucket_of(key)];
  return number != no_place ? &index.places[number - std::size_t{1}] : nullptr;
}

const list_place *list_index_next(const list_index &index, const list_place *place) {
  return place->behind != no_place ? &index.places[place->behind - std::size_t{1}] : nullptr;
}

void list_index_add(list_index &index, indexed_list *into, list_node *node, std::uint32_t key) {
  list_add(&into->records, node);
  note_place(index, into, node, key);
}

void list_index_append(list_index &index, indexed_list *into, list_node *node, std::uint32_t key) {
  list_append(&into->records, node);
  note_place(index, into, node, key);
}

int list_index_remove(list_index &index, indexed_list *from, list_node *node, std::uint32_t key) {
  const int unlinked = list_remove_node(&from->records, node);
  if (unlinked == 0) {
    give_back_place(index, node, key);
  }
  return unlinked;
}

list_node *list_index_pop(list_index &index, indexed_list *from, std::uint32_t key_of_first) {
  list_node *first = list_remove(&from->records);
  if (first != nullptr) {
    give_back_place(index, first, key_of_first);
  }
  return first;
}

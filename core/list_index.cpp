#include "core/list_index.h"

static_assert(LIST_INDEX_PLACES <= UINT8_MAX, "places are numbered in one byte");

namespace {

constexpr std::uint8_t no_place = 0;

// The top byte of the product: there all bits of the key have their say, and keys that differ in one byte part.
std::size_t bucket_of(std::uint32_t key) {
  constexpr std::uint32_t golden_ratio = 0x9e3779b1; // 2^32 / 1.618...
  constexpr unsigned top_byte = 24;
  static_assert(LIST_INDEX_BUCKETS == std::size_t{1} << (32 - top_byte));
  return key * golden_ratio >> top_byte;
}

std::uint8_t &first_of_bucket(list_index &index, std::uint32_t key) { return index.buckets[bucket_of(key)]; }

list_place &place_at(list_index &index, std::uint8_t number) { return index.places[number - std::size_t{1}]; }

// Refers to where the number of the node's place is written, in its bucket or in the place before it, so that the place
// can be taken out of the bucket; it reads no_place if the node has none.
std::uint8_t &number_of(list_index &index, const list_node *node, record_key key_of) {
  std::uint8_t *number = &first_of_bucket(index, key_of(node));
  while (*number != no_place && place_at(index, *number).node != node) {
    number = &place_at(index, *number).behind;
  }
  return *number;
}

// Null if the node has none.
list_place *place_of(list_index &index, const list_node *node, record_key key_of) {
  const std::uint8_t number = number_of(index, node, key_of);
  return number != no_place ? &place_at(index, number) : nullptr;
}

std::uint8_t take_place(list_index &index) {
  const std::uint8_t number = index.given_back;
  if (number != no_place) {
    index.given_back = place_at(index, number).behind;
    return number;
  }
  return index.used < LIST_INDEX_PLACES ? ++index.used : no_place;
}

// There is a place for every record of a pool, so none goes without.
void note_place(list_index &index, const list *on, list_node *node, list_node *previous, record_key key_of) {
  const std::uint8_t number = take_place(index);
  if (number != no_place) {
    std::uint8_t &bucket = first_of_bucket(index, key_of(node));
    place_at(index, number) = list_place{on, node, previous, bucket};
    bucket = number;
  }
}

void give_back(list_index &index, std::uint8_t &number) {
  const std::uint8_t freed = number;
  list_place &place = place_at(index, freed);
  number = place.behind;
  if (index.last_appended == place.node) {
    index.last_appended = place.previous;
  }
  place = list_place{nullptr, nullptr, nullptr, index.given_back};
  index.given_back = freed;
}

void set_previous(list_index &index, const list_node *node, list_node *previous, record_key key_of) {
  list_place *place = node != nullptr ? place_of(index, node, key_of) : nullptr;
  if (place != nullptr) {
    place->previous = previous;
  }
}

// The list's last node, null if it is empty: where it was appended to last, or at the end of a walk.
list_node *last_of(list_index &index, const list *of, record_key key_of) {
  list_node *last = index.last_appended;
  if (last != nullptr) {
    const list_place *place = place_of(index, last, key_of);
    if (place != nullptr && place->on == of) {
      return last;
    }
  }
  last = of->head;
  while (last != nullptr && last->next != nullptr) {
    last = last->next;
  }
  return last;
}

} // namespace

const list_place *list_index_first(const list_index &index, std::uint32_t key) {
  const std::uint8_t number = index.buckets[bucket_of(key)];
  return number != no_place ? &index.places[number - std::size_t{1}] : nullptr;
}

const list_place *list_index_next(const list_index &index, const list_place *place) {
  return place->behind != no_place ? &index.places[place->behind - std::size_t{1}] : nullptr;
}

void list_index_add(list_index &index, list *into, list_node *node, record_key key_of) {
  const list_node *following = list_add(into, node);
  set_previous(index, following, node, key_of);
  note_place(index, into, node, nullptr, key_of);
}

void list_index_append(list_index &index, list *into, list_node *node, record_key key_of) {
  list_node *last = last_of(index, into, key_of);
  node->next = nullptr;
  (last != nullptr ? last->next : into->head) = node;
  note_place(index, into, node, last, key_of);
  index.last_appended = node;
}

list_node *list_index_pop(list_index &index, list *from, record_key key_of) {
  list_node *first = list_remove(from);
  if (first == nullptr) {
    return nullptr;
  }
  set_previous(index, from->head, nullptr, key_of);
  std::uint8_t &number = number_of(index, first, key_of);
  if (number != no_place) {
    give_back(index, number);
  }
  return first;
}

int list_index_remove(list_index &index, list *from, list_node *node, record_key key_of) {
  std::uint8_t &number = number_of(index, node, key_of);
  if (number == no_place || place_at(index, number).on != from) {
    return list_remove_node(from, node);
  }
  list_node *previous = place_at(index, number).previous;
  list_node *following = node->next;
  list rest{node}; // the list from the node on, so that nothing is walked
  if (list_remove_node(&rest, node) == -1) {
    return -1;
  }
  (previous != nullptr ? previous->next : from->head) = following;
  set_previous(index, following, previous, key_of);
  give_back(index, number);
  return 0;
}

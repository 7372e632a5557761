// Fixed pools of records: filled once at start-up, emptied at shutdown, never grown in between.
#pragma once

#include "core/list.h"
#include "core/memory.h"

// Pushes `size` zeroed records. Returns false when an allocation failed; records made so far stay in the pool.
template <typename record> bool fill_pool(list *pool, int size) {
  for (int i = 0; i < size; ++i) {
    record *fresh = my_malloc_record<record>();
    if (fresh == nullptr) {
      return false;
    }
    list_add(pool, &fresh->link);
  }
  return true;
}

// Frees every record that stands in the pool.
void free_pool(list *pool);

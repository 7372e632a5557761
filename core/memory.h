// Counting allocator for every proxy record, so that the shutdown can say whether all of them came back.
#pragma once

#include "core/log.h"

#include <cstddef>
#include <cstdint>

extern std::int32_t malloc_counter; // calls of my_malloc, failed ones included
extern std::int32_t free_counter;   // calls of my_free, null pointers included
extern std::int32_t malloced_size;  // bytes ever asked for; never decreases, wraps after about two years of ticks

// Returns what malloc returns (memory is not cleared, null on failure).
void *my_malloc(std::size_t size_bytes);

void my_free(void *block);

// Allocates one zeroed record; null on failure.
template <typename record> record *my_malloc_record() {
  void *block = my_malloc(sizeof(record));
  if (block == nullptr) {
    return nullptr;
  }
  __builtin_memset(block, 0, sizeof(record));
  return static_cast<record *>(block);
}

// Logs whether allocations and releases balance, then the bytes used by `proxy` ("MLD" or "IGMP"); `site` is the
// shutdown that reports.
void log_memory_report(log_site site, const char *proxy);

#include "core/memory.h"

#include <cstdlib>

std::int32_t malloc_counter = 0;
std::int32_t free_counter = 0;
std::int32_t malloced_size = 0;

void *my_malloc(std::size_t size_bytes) {
  ++malloc_counter;
  // Unsigned arithmetic: the sum passes 2^31 on a router that runs for years.
  malloced_size =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(malloced_size) + static_cast<std::uint32_t>(size_bytes));
  return std::malloc(size_bytes);
}

void my_free(void *block) {
  ++free_counter;
  std::free(block);
}

void log_memory_report(log_site site, const char *proxy) {
  if (malloc_counter != free_counter) {
    log_error(site, "Memory leaks. Malloc:%d Free:%d.", malloc_counter, free_counter);
  } else {
    log_debug(site, "No memory leaks detected.");
  }
  log_debug(site, "%s Proxy was using %d bytes.", proxy, malloced_size);
}

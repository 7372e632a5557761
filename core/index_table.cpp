#include "core/index_table.h"

#include "core/log.h"

#include <cstdio>

std::array<std::int32_t, INDEX_TABLE_SLOTS> index_table{};
std::int32_t LanIndex = 0;
std::int32_t NatptIndex = 0;

namespace {

constexpr std::int32_t free_slot = 0;
constexpr std::int32_t lowest_ifindex = 1;

bool is_slot(std::int32_t slot) { return slot >= 0 && slot < INDEX_TABLE_SLOTS; }

// The first slot with that content, -1 if there is none.
std::int32_t find_slot(std::int32_t content) {
  std::int32_t slot = 0;
  for (const std::int32_t held : index_table) {
    if (held == content) {
      return slot;
    }
    ++slot;
  }
  return -1;
}

} // namespace

std::int32_t natpt_index_for(std::int32_t ifindex) { return ifindex == LanIndex ? NatptIndex : ifindex; }

std::int32_t find_free_index() { return find_slot(free_slot); }

std::int32_t add_dev_index(std::int32_t ifindex) {
  const std::int32_t slot = find_free_index();
  if (slot == -1) {
    std::puts("index table full!");
    return -1;
  }
  index_table[static_cast<std::size_t>(slot)] = ifindex;
  return slot;
}

std::int32_t find_used_index(std::int32_t ifindex) {
  if (ifindex < lowest_ifindex) {
    log_debug(IGMP_HERE, "illegal dev index: %d", ifindex);
    return -1;
  }
  return find_slot(ifindex);
}

std::int32_t free_used_index(std::int32_t slot) {
  if (is_slot(slot)) {
    index_table[static_cast<std::size_t>(slot)] = free_slot;
  }
  return slot;
}

std::int32_t del_dev_index(std::int32_t ifindex) {
  const std::int32_t slot = find_used_index(ifindex);
  if (slot < 0) {
    std::printf("device index: [%d] not found!\n", ifindex);
    return -1;
  }
  return free_used_index(slot);
}

void show_index_table() {
  std::puts("\n----------- show index_table --------------");
  std::int32_t slot = 0;
  for (const std::int32_t held : index_table) {
    if (held != free_slot) {
      std::printf("i: %d, index: %d\n", slot, held);
    }
    ++slot;
  }
}

#include "mute_memory.h"

#include "mute_kernel.h"

#include <array>
#include <cstdint>
#include <cstring>

// Compilers for targets without AddressSanitizer have no such header.
#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#endif

namespace mute {

memory_use MemoryUse{};

namespace {

constexpr std::size_t slot_count = 1024;
constexpr std::size_t slot_bytes = 512;
constexpr std::size_t guard_bytes = 32; // behind the longest block
constexpr unsigned char uncleared = 0xbe;

struct alignas(std::max_align_t) slot {
  std::array<std::byte, slot_bytes> bytes;
};

std::array<slot, slot_count> Arena;
std::array<std::size_t, slot_count> Sizes; // of the blocks; 0: free
std::size_t NextSlot = 0;
// Before the first block is taken, its neighbours are out of bounds already.
[[maybe_unused]] const bool IsPoisoned = [] {
  ASAN_POISON_MEMORY_REGION(Arena.data(), sizeof(Arena));
  return true;
}();

void release(std::size_t number) {
  --MemoryUse.blocks;
  MemoryUse.bytes -= Sizes[number];
  ASAN_POISON_MEMORY_REGION(&Arena[number], slot_bytes);
  Sizes[number] = 0;
}

} // namespace

void *take_block(std::size_t size) {
  if (size == 0 || size > slot_bytes - guard_bytes) {
    fail("the daemon asked for a block of " + std::to_string(size) + " bytes");
  }
  if (MemoryUse.blocks == slot_count) {
    fail("the daemon asked for more blocks than it has records");
  }
  while (Sizes[NextSlot] != 0) {
    NextSlot = (NextSlot + 1) % slot_count;
  }
  const std::size_t number = NextSlot;
  NextSlot = (NextSlot + 1) % slot_count;
  Sizes[number] = size;
  ++MemoryUse.blocks;
  MemoryUse.bytes += size;
  ASAN_UNPOISON_MEMORY_REGION(&Arena[number], size);
  return std::memset(&Arena[number], uncleared, size);
}

void give_back_block(void *block) {
  const auto offset = reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(Arena.data());
  if (offset >= sizeof(Arena) || offset % slot_bytes != 0 || Sizes[offset / slot_bytes] == 0) {
    fail("the daemon gave back a block that it did not have");
  }
  release(offset / slot_bytes);
}

std::size_t give_back_all_blocks() {
  const std::size_t lost = MemoryUse.blocks;
  for (std::size_t number = 0; number < slot_count && MemoryUse.blocks != 0; ++number) {
    if (Sizes[number] != 0) {
      release(number);
    }
  }
  return lost;
}

} // namespace mute

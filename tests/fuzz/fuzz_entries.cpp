// What the companion does with the forwarding cache, whatever the kernel and the hosts say in whatever order.
#include "entries_world.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  world::start_entries();
  world::play_entries_step({bytes, size});
  return 0;
}

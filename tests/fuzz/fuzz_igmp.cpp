// Whole lives of an IGMP proxy, in both of its modes (igmp_world.h explains the script).
#include "igmp_world.h"
#include "mute_kernel.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  mute::silence();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  mute::play([&] { world::run_igmp_script({bytes, size}); });
  return 0;
}

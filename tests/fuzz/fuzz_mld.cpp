// Whole lives of an MLD proxy: reports, queries, ticks, refusals, dumps, restarts (mld_world.h explains the script).
#include "mld_world.h"
#include "mute_kernel.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  mute::silence();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  mute::play([&] { world::run_mld_script({bytes, size}); });
  return 0;
}

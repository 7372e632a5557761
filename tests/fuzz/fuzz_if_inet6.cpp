// The kernel's table of addresses, as contents of a file.
#include "core/settings.h"
#include "mld/mld_link_local.h"
#include "mute_kernel.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  mute::silence();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  mute::Kernel.file = {reinterpret_cast<const char *>(bytes), size};
  mute::play([] {
    mld_interface intr{};
    intr.name = copy_interface_name("x2");
    if (set_linklocal(&intr) == 0 && intr.link_local[0] != 0xfe) {
      mute::fail("an address that is not link-local");
    }
    mute::release_what_is_lost();
  });
  return 0;
}

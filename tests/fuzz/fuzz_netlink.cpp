// What the companion reads from the kernel: a buffer of rtnetlink messages.
#include "assist/notification.h"
#include "mute_kernel.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  netlink_bytes rest(reinterpret_cast<const std::byte *>(bytes), size);
  notification event{};
  for (std::size_t before = rest.size(); next_notification(rest, event); before = rest.size()) {
    if (rest.size() >= before) {
      mute::fail("a message that takes no room");
    }
    if (event.name.back() != '\0') {
      mute::fail("a name without end");
    }
  }
  return 0;
}

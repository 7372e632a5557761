// The NVRAM file: the first line of the input is the key, the rest the file.
#include "igmp/igmp_lan_address.h"
#include "mute_kernel.h"
#include "platform/nvram.h"
#include "platform/nvram_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  mute::silence();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  const std::span<const char> input(reinterpret_cast<const char *>(bytes), size);
  const auto key_end = std::find(input.begin(), input.end(), '\n');
  std::string key(input.begin(), key_end);
  key.resize(std::strlen(key.c_str()));
  mute::Kernel.file = input.subspan(static_cast<std::size_t>(key_end - input.begin()));
  nvram_file_forget();
  mute::play([&] {
    const char *value = nvram_get(key.c_str());
    if (value != nullptr && std::strchr(value, '\n') != nullptr) {
      mute::fail("a value of two lines");
    }
    unsigned char mac[6] = {};
    ether_atoe(value != nullptr ? value : key.c_str(), mac);
    igmp_lan_address();
    mute::release_what_is_lost();
  });
  return 0;
}

#include "core/settings.h"

#include <algorithm>
#include <cstring>

std::int32_t ProxyMode = PROXY_MODE_6TO6;
std::int32_t ProxyDebugLevel = 0;
std::int32_t ProxyIsADaemon = 0;
const char *UpstreamInterfacesName = nullptr;
name_pointers DownstreamInterfacesName{};
std::int32_t DownstreamInterfacesNum = 0;
name_pointers IgnoreInterfacesName{};
std::int32_t IgnoreInterfacesNum = 0;
std::int32_t ForceNonQuerier = 0;
std::int32_t ImmediateLeave = 0;
std::array<std::uint8_t, 6> LanMac{};
ipv6_address MldPrefix{};

interface_name copy_interface_name(const char *name) {
  interface_name copy{};
  if (name != nullptr) {
    std::memcpy(copy.data(), name, strnlen(name, copy.size() - 1));
  }
  return copy;
}

std::array<interface_name, INTERFACE_NAME_SLOTS> copy_interface_names(const name_pointers &names, std::int32_t count) {
  std::array<interface_name, INTERFACE_NAME_SLOTS> copies{};
  const std::size_t kept = static_cast<std::size_t>(std::clamp(count, 0, INTERFACE_NAME_SLOTS));
  std::size_t next = 0;
  for (std::size_t i = 0; i < kept; ++i) {
    if (names[i] != nullptr && names[i][0] != '\0') {
      copies[next++] = copy_interface_name(names[i]);
    }
  }
  return copies;
}

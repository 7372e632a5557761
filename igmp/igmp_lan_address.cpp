#include "igmp/igmp_lan_address.h"

#include "platform/nvram.h"

#include <cstdlib>
#include <cstring>

std::uint32_t igmp_lan_address() {
  constexpr unsigned int octets = 4;
  constexpr unsigned int bits_per_octet = 8;
  std::uint32_t address = 0;
  const char *field = nvram_text("lan_ipaddr");
  for (unsigned int i = 0; i < octets && field != nullptr; ++i) {
    address += static_cast<std::uint32_t>(std::atoi(field)) << (i * bits_per_octet);
    field = std::strchr(field, '.');
    if (field != nullptr) {
      ++field;
    }
  }
  return address;
}

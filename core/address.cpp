#include "core/address.h"

#include <cstdio>
#include <cstring>

std::array<char, 16> MyInAddr{};

namespace {

// Two hexadecimal digits for each value of a byte: log lines hold an address each, so its text is looked up.
constexpr std::array<char, 512> make_digit_pairs() {
  constexpr char digits[] = "0123456789abcdef";
  std::array<char, 512> pairs{};
  for (std::size_t byte = 0; byte < 256; ++byte) {
    pairs[byte * 2] = digits[byte >> 4];
    pairs[byte * 2 + 1] = digits[byte & 0x0f];
  }
  return pairs;
}

constexpr std::array<char, 512> digit_pairs = make_digit_pairs();

} // namespace

address_text address_to_log_text(const ipv6_address &address) {
  address_text text;
  char *out = text.characters.data();
  for (std::size_t i = 0; i < address.size(); ++i) {
    if (i != 0 && i % 2 == 0) {
      *out++ = ':';
    }
    std::memcpy(out, &digit_pairs[address[i] * std::size_t{2}], 2);
    out += 2;
  }
  *out = '\0';
  return text;
}

bool is_link_local_group(const ipv6_address &group) {
  return group[0] == IPv6McastPrefix[0] && group[1] == IPv6McastPrefix[1];
}

in6_addr to_in6_addr(const ipv6_address &address) {
  in6_addr converted;
  std::memcpy(&converted, address.data(), address.size());
  return converted;
}

ipv6_address from_in6_addr(const in6_addr &address) {
  ipv6_address converted;
  std::memcpy(converted.data(), &address, converted.size());
  return converted;
}

const char *my_inet_ntoa(const std::uint32_t *address) {
  const std::uint32_t word = *address;
  std::snprintf(MyInAddr.data(), MyInAddr.size(), "%d.%d.%d.%d", static_cast<int>(word >> 24),
                static_cast<int>((word >> 16) & 0xff), static_cast<int>((word >> 8) & 0xff),
                static_cast<int>(word & 0xff));
  return MyInAddr.data();
}

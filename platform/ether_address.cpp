#include "platform/nvram.h"

#include <array>
#include <cstring>

namespace {

constexpr std::size_t mac_bytes = 6;
constexpr std::size_t mac_text_length = 17; // "aa:bb:cc:dd:ee:ff"

// Value of a hexadecimal digit, -1 for any other character.
int digit_value(char character) {
  if (character >= '0' && character <= '9') {
    return character - '0';
  }
  if (character >= 'a' && character <= 'f') {
    return character - 'a' + 10;
  }
  if (character >= 'A' && character <= 'F') {
    return character - 'A' + 10;
  }
  return -1;
}

} // namespace

int ether_atoe(const char *text, unsigned char *bytes) {
  if (std::strlen(text) != mac_text_length) {
    return 0;
  }
  std::array<unsigned char, mac_bytes> parsed{};
  for (std::size_t i = 0; i < mac_bytes; ++i) {
    const char *pair = text + i * 3;
    const int high = digit_value(pair[0]);
    const int low = digit_value(pair[1]);
    const bool ends_well = i + 1 == mac_bytes || pair[2] == ':';
    if (high < 0 || low < 0 || !ends_well) {
      return 0;
    }
    parsed[i] = static_cast<unsigned char>(high * 16 + low);
  }
  std::memcpy(bytes, parsed.data(), parsed.size());
  return 1;
}

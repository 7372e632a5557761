#include "run/derived_address.h"

namespace {

constexpr std::uint8_t group_bit = 0x01;
constexpr std::uint8_t local_bit = 0x02;
constexpr std::uint8_t highest_local_unicast = 0xfe;

// FNV-1a, 32 bits.
constexpr std::uint32_t fnv_start = 2166136261U;
constexpr std::uint32_t fnv_prime = 16777619U;
constexpr unsigned bits_per_byte = 8;

std::uint32_t hash_of(const char *text, unsigned attempt) {
  std::uint32_t hash = (fnv_start ^ attempt) * fnv_prime;
  for (; *text != '\0'; ++text) {
    hash = (hash ^ static_cast<std::uint8_t>(*text)) * fnv_prime;
  }
  return hash;
}

} // namespace

// The first three bytes name the maker of the host's card, the last three are mixed.
ether_address derive_inner_address(const ether_address &host_address, const char *purpose, unsigned attempt) {
  constexpr std::size_t first_mixed = 3;
  ether_address derived = host_address;
  derived[0] = static_cast<std::uint8_t>((derived[0] | local_bit) & ~group_bit);
  std::uint32_t hash = hash_of(purpose, attempt) | 1; // never the host's own address
  for (std::size_t i = derived.size() - 1; i >= first_mixed; --i, hash >>= bits_per_byte) {
    derived[i] = static_cast<std::uint8_t>(derived[i] ^ hash);
  }
  return derived;
}

ether_address derive_outer_address(const ether_address &inner_address) {
  ether_address derived = inner_address;
  derived[0] = highest_local_unicast;
  return derived;
}

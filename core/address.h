// IPv6 and IPv4 addresses and their text in log lines.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>

// Sixteen bytes in network order. Byte alignment on purpose: addresses lie at odd offsets in packets and frames.
using ipv6_address = std::array<std::uint8_t, 16>;

inline constexpr ipv6_address In6AddrAny{};                // ::, stands for all sources or any host
inline constexpr ipv6_address IPv6McastPrefix{0xff, 0x02}; // ff02::

// IPv4 words, native and never swapped: igmp_router.h tells what follows from that.
inline constexpr std::uint32_t IgmpAllHosts = 0xE0000001;   // 224.0.0.1
inline constexpr std::uint32_t IgmpAllRouters = 0xE0000002; // 224.0.0.2
inline constexpr std::uint32_t IgmpV3AllMcr = 0xE0000016;   // 224.0.0.22
inline constexpr std::uint32_t InAddrAny = 0;

// First byte of every IPv6 multicast address (RFC 4291, section 2.7).
inline constexpr std::uint8_t IPV6_MULTICAST_FIRST_BYTE = 0xff;

// The same as ==, for walks over many records: no call of memcmp, and the half in which addresses differ comes first.
inline bool is_same_address(const ipv6_address &left, const ipv6_address &right) {
  constexpr std::size_t half = sizeof(std::uint64_t);
  std::array<std::uint64_t, 2> low;
  std::array<std::uint64_t, 2> high;
  std::memcpy(&low[0], &left[half], half);
  std::memcpy(&low[1], &right[half], half);
  std::memcpy(&high[0], &left[0], half);
  std::memcpy(&high[1], &right[0], half);
  return low[0] == low[1] && high[0] == high[1];
}

// The four words of an address folded into one: what an index finds it by.
inline std::uint32_t address_key(const ipv6_address &address) {
  std::array<std::uint32_t, 4> words;
  std::memcpy(words.data(), address.data(), address.size());
  return words[0] ^ words[1] ^ words[2] ^ words[3];
}

struct address_text {
  std::array<char, 40> characters; // eight groups of four digits, seven colons, NUL
};

// Eight groups of four hexadecimal digits, never compressed: "ff0e:0000:...:0003".
address_text address_to_log_text(const ipv6_address &address);

// Argument for a "%s" of a log line; the text lives until the end of that statement.
#define ADDRESS_TEXT(address) (address_to_log_text(address).characters.data())

// ff02::/16, the link-local scope: never tracked, never forwarded.
bool is_link_local_group(const ipv6_address &group);

in6_addr to_in6_addr(const ipv6_address &address);
ipv6_address from_in6_addr(const in6_addr &address);

// Result buffer of my_inet_ntoa: every call overwrites it.
extern std::array<char, 16> MyInAddr;

// Dotted text of an IPv4 word, most significant octet first; returns `MyInAddr`.
const char *my_inet_ntoa(const std::uint32_t *address);

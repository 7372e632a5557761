// Numbers of MLD messages on the wire: RFC 2710 (MLDv1), RFC 3810 (MLDv2), RFC 4861 (router advertisement).
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint8_t ICMPV6_MGM_QUERY = 130;
inline constexpr std::uint8_t ICMPV6_MGM_REPORT = 131;
inline constexpr std::uint8_t ICMPV6_MGM_REDUCTION = 132;
inline constexpr std::uint8_t ICMPV6_ROUTER_ADVERTISEMENT = 134;
inline constexpr std::uint8_t ICMPV6_MLD2_REPORT = 143;

// Offsets from the ICMPv6 type byte.
inline constexpr std::size_t MLD_GROUP_OFFSET = 8;         // multicast address of query, MLDv1 report and done
inline constexpr std::size_t MLD2_RECORD_COUNT_OFFSET = 6; // MLDv2 report
inline constexpr std::size_t MLD2_FIRST_RECORD_OFFSET = 8;

inline constexpr std::size_t MLD_MESSAGE_BYTES = 1600; // receive buffer; longer messages are cut by the kernel

inline constexpr std::size_t IPV6_ADDRESS_BYTES = 16;

inline constexpr std::uint16_t read_u16(const std::uint8_t *bytes) {
  return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline constexpr void write_u16(std::uint8_t *bytes, std::size_t value) {
  bytes[0] = static_cast<std::uint8_t>(value >> 8);
  bytes[1] = static_cast<std::uint8_t>(value);
}

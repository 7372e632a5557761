// Numbers of IGMP messages on the wire: RFC 1112 (version 1), RFC 2236 (version 2), and of the IPv4 header before them
// (RFC 791). IGMPv3 reports are not known here: they are ignored like any other type.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint8_t IGMP_MEMBERSHIP_QUERY = 0x11;
inline constexpr std::uint8_t IGMP_V1_REPORT = 0x12;
inline constexpr std::uint8_t IGMP_V2_REPORT = 0x16;
inline constexpr std::uint8_t IGMP_V2_LEAVE = 0x17;

// Offsets from the type byte.
inline constexpr std::size_t IGMP_MAX_RESPONSE_OFFSET = 1; // tenths of a second
inline constexpr std::size_t IGMP_CHECKSUM_OFFSET = 2;
inline constexpr std::size_t IGMP_GROUP_OFFSET = 4;
inline constexpr std::size_t IGMP_MESSAGE_BYTES = 8;

// Offsets from the start of the datagram, which the raw socket delivers with its IP header.
inline constexpr std::size_t IP_PROTOCOL_OFFSET = 9;
inline constexpr std::size_t IP_SOURCE_OFFSET = 12;
inline constexpr std::size_t IP_HEADER_BYTES = 20; // without options

inline constexpr std::size_t IGMP_DATAGRAM_BYTES = 1600; // receive buffer; longer datagrams are cut by the kernel

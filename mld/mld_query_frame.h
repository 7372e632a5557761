// An MLDv2 query as a complete Ethernet frame: RFC 3810 section 5.1, RFC 8200, RFC 2711 (Router Alert).
#pragma once

#include "core/address.h"

#include <array>
#include <cstdint>
#include <span>

inline constexpr std::size_t MLD_QUERY_FRAME_BYTES = 90;   // without sources; 16 more for each
inline constexpr std::size_t MLD_QUERY_MESSAGE_BYTES = 28; // ICMPv6 part without sources

using mac_address = std::array<std::uint8_t, 6>;

// 33:33 and the last four bytes of the group; all nodes for the general query (RFC 2464, section 7).
mac_address mld_query_destination(const ipv6_address &group);

// Fills a zeroed frame for `group` (:: in a general query) except for its sources and checksum. `frame` holds at
// least MLD_QUERY_FRAME_BYTES.
void mld_fill_query_frame(std::span<std::uint8_t> frame, const ipv6_address &group, const ipv6_address &querier);

// Writes source number `index`, counted from 0; `frame` has room for it.
void mld_write_query_source(std::span<std::uint8_t> frame, std::size_t index, const ipv6_address &source);

// Sets source count, payload length and checksum. Returns the part of `frame` to send.
std::span<const std::uint8_t> mld_finish_query_frame(std::span<std::uint8_t> frame, std::size_t source_count);

// One's-complement sum of 16-bit big-endian words, carries folded; an odd last byte is padded with zero.
std::uint16_t mld_ones_complement_sum(std::span<const std::uint8_t> bytes, std::uint32_t start_sum);

// ICMPv6 checksum (RFC 4443, section 2.3) of a message whose checksum field is zero, in host order. `ipv6_header`
// points at the 40-byte header. A result of 0 is returned as 0xffff.
std::uint16_t mld_checksum(const std::uint8_t *ipv6_header, std::uint8_t next_header,
                           std::span<const std::uint8_t> message);

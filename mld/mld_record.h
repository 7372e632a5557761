// A multicast address record of an MLDv2 report (RFC 3810, section 5.2), read within its bounds.
#pragma once

#include "core/address.h"

#include <array>
#include <cstdint>
#include <span>

enum mld_record_type : std::uint8_t {
  MLD2_MODE_IS_INCLUDE = 1,
  MLD2_MODE_IS_EXCLUDE = 2,
  MLD2_CHANGE_TO_INCLUDE = 3,
  MLD2_CHANGE_TO_EXCLUDE = 4,
  MLD2_ALLOW_NEW_SOURCES = 5,
  MLD2_BLOCK_OLD_SOURCES = 6
};

inline constexpr std::size_t MLD_RECORD_HEADER_BYTES = 20;
inline constexpr std::size_t MLD_ONE_SOURCE_RECORD_BYTES = 36;

// The record's bytes, header and sources, in the receive buffer; writable, since a source may be replaced.
struct mld_record {
  std::span<std::uint8_t> bytes; // at least MLD_RECORD_HEADER_BYTES
};

std::uint8_t mld_record_kind(const mld_record &record);
ipv6_address mld_record_group(const mld_record &record);

// Sources that the record claims; may be more than lie within its bytes.
std::size_t mld_record_claimed_sources(const mld_record &record);

// Sources that lie within its bytes.
std::size_t mld_record_source_count(const mld_record &record);

ipv6_address mld_record_source(const mld_record &record, std::size_t index);
void mld_record_set_source(const mld_record &record, std::size_t index, const ipv6_address &source);

// Writes a record with one source into MLD_ONE_SOURCE_RECORD_BYTES of scratch memory.
mld_record mld_make_one_source_record(std::span<std::uint8_t> scratch, mld_record_type type, const ipv6_address &group,
                                      const ipv6_address &source);

// Name of a record type in the log; `kind` is 1 to 6.
const char *mld_record_kind_name(std::uint8_t kind);

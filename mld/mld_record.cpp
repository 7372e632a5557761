#include "mld/mld_record.h"

#include "mld/mld_wire.h"

#include <algorithm>

namespace {

constexpr std::size_t kind_at = 0;
constexpr std::size_t auxiliary_length_at = 1;
constexpr std::size_t source_count_at = 2;
constexpr std::size_t group_at = 4;

ipv6_address read_address(const mld_record &record, std::size_t at) {
  ipv6_address address;
  std::copy_n(&record.bytes[at], address.size(), address.begin());
  return address;
}

void write_address(const mld_record &record, std::size_t at, const ipv6_address &address) {
  std::copy(address.begin(), address.end(), &record.bytes[at]);
}

constexpr std::size_t source_at(std::size_t index) { return MLD_RECORD_HEADER_BYTES + index * IPV6_ADDRESS_BYTES; }

} // namespace

std::uint8_t mld_record_kind(const mld_record &record) { return record.bytes[kind_at]; }

ipv6_address mld_record_group(const mld_record &record) { return read_address(record, group_at); }

std::size_t mld_record_claimed_sources(const mld_record &record) { return read_u16(&record.bytes[source_count_at]); }

std::size_t mld_record_source_count(const mld_record &record) {
  const std::size_t room = (record.bytes.size() - MLD_RECORD_HEADER_BYTES) / IPV6_ADDRESS_BYTES;
  return std::min(mld_record_claimed_sources(record), room);
}

ipv6_address mld_record_source(const mld_record &record, std::size_t index) {
  return read_address(record, source_at(index));
}

void mld_record_set_source(const mld_record &record, std::size_t index, const ipv6_address &source) {
  write_address(record, source_at(index), source);
}

mld_record mld_make_one_source_record(std::span<std::uint8_t> scratch, mld_record_type type, const ipv6_address &group,
                                      const ipv6_address &source) {
  const mld_record record{scratch.first(MLD_ONE_SOURCE_RECORD_BYTES)};
  record.bytes[kind_at] = type;
  record.bytes[auxiliary_length_at] = 0;
  write_u16(&record.bytes[source_count_at], 1);
  write_address(record, group_at, group);
  write_address(record, source_at(0), source);
  return record;
}

const char *mld_record_kind_name(std::uint8_t kind) {
  constexpr std::array<const char *, 7> names{"",
                                              "MLD2_MODE_IS_INCLUDE",
                                              "MLD2_MODE_IS_EXCLUDE",
                                              "MLD2_CHANGE_TO_INCLUDE",
                                              "MLD2_CHANGE_TO_EXCLUDE",
                                              "MLD2_ALLOW_NEW_SOURCES",
                                              "MLD2_BLOCK_OLD_SOURCES"};
  return kind < names.size() ? names[kind] : names[0];
}

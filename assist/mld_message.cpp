#include "assist/mld_message.h"

#include <algorithm>

namespace {

constexpr std::size_t v1_query_bytes = 24;
constexpr std::size_t v2_query_bytes = 28;
constexpr std::size_t max_response_at = 4;
constexpr std::size_t source_count_at = 26;

constexpr ipv6_address all_nodes{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};

// RFC 3810, section 5.1.3: from 32768 on a floating-point value.
std::uint32_t max_response_of(std::uint16_t code) {
  constexpr std::uint16_t first_float = 0x8000;
  constexpr std::uint32_t hidden_bit = 0x1000;
  constexpr int exponent_bias = 3;
  if (code < first_float) {
    return code;
  }
  const std::uint32_t mantissa = code & 0x0fffU;
  return (mantissa | hidden_bit) << ((code >> 12 & 7) + exponent_bias);
}

bool is_link_local(const ipv6_address &address) { return address[0] == 0xfe && (address[1] & 0xc0) == 0x80; }

} // namespace

std::uint8_t type_of(const mld_message &message) { return message.bytes[0]; }

ipv6_address group_of(const mld_message &message) {
  ipv6_address group;
  std::copy_n(&message.bytes[MLD_GROUP_OFFSET], group.size(), group.begin());
  return group;
}

mld_records records_of(mld_message &message) {
  if (type_of(message) != ICMPV6_MLD2_REPORT) {
    return {};
  }
  return {std::span{message.bytes}.subspan(MLD2_FIRST_RECORD_OFFSET),
          read_u16(&message.bytes[MLD2_RECORD_COUNT_OFFSET])};
}

bool next_record(mld_records &records, mld_record &record) {
  if (records.left == 0 || records.rest.size() < MLD_RECORD_HEADER_BYTES) {
    return false;
  }
  // The daemon does not skip auxiliary data either.
  const std::size_t length =
      MLD_RECORD_HEADER_BYTES + mld_record_claimed_sources(mld_record{records.rest}) * IPV6_ADDRESS_BYTES;
  const std::size_t held = std::min(length, records.rest.size());
  record.bytes = records.rest.first(held);
  records.rest = records.rest.subspan(held);
  --records.left;
  return true;
}

bool read_query(const mld_message &message, mld_query_fields &query) {
  if (type_of(message) != ICMPV6_MGM_QUERY) {
    return false;
  }
  const std::uint16_t response_code = read_u16(&message.bytes[max_response_at]);
  query = {group_of(message), response_code, {}};
  if (message.length < v2_query_bytes) {
    return message.length == v1_query_bytes;
  }
  query.max_response_ms = max_response_of(response_code);
  const std::size_t source_bytes = read_u16(&message.bytes[source_count_at]) * IPV6_ADDRESS_BYTES;
  if (source_bytes > message.length - v2_query_bytes) {
    return false;
  }
  query.sources = std::span{message.bytes}.subspan(v2_query_bytes, source_bytes);
  return true;
}

bool is_proper_query(const mld_message &message, const mld_query_fields &query) {
  return is_link_local(message.sender) && message.hop_limit == 1 && message.has_router_alert &&
         (message.destination == all_nodes || (query.group != In6AddrAny && message.destination == query.group));
}

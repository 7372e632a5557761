#include "mld/mld_query_frame.h"

#include "core/settings.h"
#include "mld/mld_timing.h"
#include "mld/mld_wire.h"

#include <algorithm>

namespace {

// Offsets in the frame: Ethernet header, IPv6 header, hop-by-hop options, MLD message.
constexpr std::size_t source_mac_at = 6;
constexpr std::size_t ethertype_at = 12;
constexpr std::size_t ipv6_header_at = 14;
constexpr std::size_t payload_length_at = 18;
constexpr std::size_t hop_limit_at = 21;
constexpr std::size_t source_address_at = 22;
constexpr std::size_t destination_address_at = 38;
constexpr std::size_t hop_by_hop_at = 54;
constexpr std::size_t router_alert_at = 56;
constexpr std::size_t pad_at = 60;
constexpr std::size_t message_at = 62;
constexpr std::size_t checksum_at = 64;
constexpr std::size_t max_response_at = 66;
constexpr std::size_t group_at = 70;
constexpr std::size_t robustness_at = 86;
constexpr std::size_t query_interval_at = 87;
constexpr std::size_t source_count_at = 88; // the low byte follows
constexpr std::size_t sources_at = 90;

constexpr std::size_t source_address_in_header = 8; // from the start of the IPv6 header
constexpr std::size_t payload_without_sources = 36; // hop-by-hop options and message

constexpr std::uint16_t ethertype_ipv6 = 0x86dd;
constexpr std::uint8_t ip_version_6 = 0x60;
constexpr std::uint8_t next_header_icmpv6 = 58;
constexpr std::uint8_t option_router_alert = 5;
constexpr std::uint8_t router_alert_length = 2;
constexpr std::uint8_t option_padn = 1;

// RFC 3810, sections 5.1.3, 5.1.8 and 5.1.9: below these limits a number stands for itself.
static_assert(MLD_MAX_RESPONSE_MS < 32768 && MLD_ROBUSTNESS < 8 && MLD_QUERY_INTERVAL_S < 128);

constexpr ipv6_address all_nodes{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};

void write_address(std::span<std::uint8_t> frame, std::size_t at, const ipv6_address &address) {
  std::copy(address.begin(), address.end(), frame.begin() + static_cast<std::ptrdiff_t>(at));
}

} // namespace

mac_address mld_query_destination(const ipv6_address &group) {
  const ipv6_address &shown = group == In6AddrAny ? all_nodes : group;
  return {0x33, 0x33, shown[12], shown[13], shown[14], shown[15]};
}

void mld_fill_query_frame(std::span<std::uint8_t> frame, const ipv6_address &group, const ipv6_address &querier) {
  const mac_address destination = mld_query_destination(group);
  std::copy(destination.begin(), destination.end(), frame.begin());
  std::copy(LanMac.begin(), LanMac.end(), frame.begin() + source_mac_at);
  write_u16(&frame[ethertype_at], ethertype_ipv6);

  frame[ipv6_header_at] = ip_version_6;
  write_u16(&frame[payload_length_at], payload_without_sources);
  frame[hop_limit_at] = 1;
  write_address(frame, source_address_at, querier);
  write_address(frame, destination_address_at, all_nodes); // for group-specific queries, too

  frame[hop_by_hop_at] = next_header_icmpv6;
  frame[router_alert_at] = option_router_alert;
  frame[router_alert_at + 1] = router_alert_length;
  frame[pad_at] = option_padn;

  frame[message_at] = ICMPV6_MGM_QUERY;
  write_u16(&frame[max_response_at], MLD_MAX_RESPONSE_MS);
  write_address(frame, group_at, group);
  frame[robustness_at] = MLD_ROBUSTNESS; // S flag clear
  frame[query_interval_at] = MLD_QUERY_INTERVAL_S;
}

void mld_write_query_source(std::span<std::uint8_t> frame, std::size_t index, const ipv6_address &source) {
  write_address(frame, sources_at + index * IPV6_ADDRESS_BYTES, source);
}

std::span<const std::uint8_t> mld_finish_query_frame(std::span<std::uint8_t> frame, std::size_t source_count) {
  const std::size_t source_bytes = source_count * IPV6_ADDRESS_BYTES;
  frame[source_count_at + 1] = static_cast<std::uint8_t>(source_count);
  write_u16(&frame[payload_length_at], payload_without_sources + source_bytes);
  const std::span<const std::uint8_t> message = frame.subspan(message_at, MLD_QUERY_MESSAGE_BYTES + source_bytes);
  write_u16(&frame[checksum_at], mld_checksum(&frame[ipv6_header_at], next_header_icmpv6, message));
  return frame.first(MLD_QUERY_FRAME_BYTES + source_bytes);
}

std::uint16_t mld_ones_complement_sum(std::span<const std::uint8_t> bytes, std::uint32_t start_sum) {
  std::uint32_t sum = start_sum;
  std::size_t i = 0;
  for (; i + 1 < bytes.size(); i += 2) {
    sum += read_u16(&bytes[i]);
  }
  if (i < bytes.size()) {
    sum += static_cast<std::uint32_t>(bytes[i] << 8);
  }
  sum = (sum >> 16) + (sum & 0xffff);
  sum = (sum >> 16) + (sum & 0xffff);
  return static_cast<std::uint16_t>(sum);
}

std::uint16_t mld_checksum(const std::uint8_t *ipv6_header, std::uint8_t next_header,
                           std::span<const std::uint8_t> message) {
  const std::span<const std::uint8_t> addresses(ipv6_header + source_address_in_header, 2 * IPV6_ADDRESS_BYTES);
  std::array<std::uint8_t, 6> pseudo_tail{};
  write_u16(pseudo_tail.data(), message.size());
  pseudo_tail[5] = next_header;
  std::uint32_t sum = mld_ones_complement_sum(addresses, 0);
  sum = mld_ones_complement_sum(pseudo_tail, sum);
  sum = mld_ones_complement_sum(message, sum);
  const auto checksum = static_cast<std::uint16_t>(~sum);
  return checksum == 0 ? 0xffff : checksum;
}

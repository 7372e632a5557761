#include "bench/report_frame.h"

#include "bench/network.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>

namespace {

constexpr ipv6_address mldv2_routers{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x16};
constexpr std::size_t ipv6_at = ETH_HLEN;
constexpr std::size_t options_at = ipv6_at + 40;
constexpr std::size_t message_at = options_at + 8;

template <typename bytes> void append(std::vector<std::uint8_t> &to, const bytes &what) {
  for (const std::uint8_t byte : what) {
    to.push_back(byte);
  }
}

void append_u16(std::vector<std::uint8_t> &to, std::size_t value) {
  to.push_back(static_cast<std::uint8_t>(value >> 8));
  to.push_back(static_cast<std::uint8_t>(value));
}

std::uint32_t sum_words(std::span<const std::uint8_t> bytes) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    sum += read_u16(&bytes[i]);
  }
  return sum;
}

// RFC 4443, section 2.3. All messages here have an even length.
std::uint16_t icmp6_checksum(std::span<const std::uint8_t> addresses, std::span<const std::uint8_t> message) {
  std::uint32_t sum = sum_words(addresses) + sum_words(message) + static_cast<std::uint32_t>(message.size()) +
                      static_cast<std::uint32_t>(IPPROTO_ICMPV6);
  while (sum > 0xffff) {
    sum = (sum & 0xffff) + (sum >> 16);
  }
  return static_cast<std::uint16_t>(~sum);
}

frame wrap_message(const std::vector<std::uint8_t> &message, const ipv6_address &destination) {
  constexpr std::array<std::uint8_t, 2> multicast_mac{0x33, 0x33};
  constexpr std::array<std::uint8_t, 6> host_mac{0x02, 0, 0, 0, 0, 0x77};
  constexpr std::array<std::uint8_t, 8> router_alert{IPPROTO_ICMPV6, 0, 5, 2, 0, 0, 1, 0}; // RFC 2711, and PadN
  frame whole;
  append(whole, multicast_mac);
  append(whole, std::span(destination).last(4));
  append(whole, host_mac);
  append_u16(whole, ETH_P_IPV6);
  append(whole, std::array<std::uint8_t, 4>{0x60, 0, 0, 0});
  append_u16(whole, router_alert.size() + message.size());
  append(whole, std::array<std::uint8_t, 2>{IPPROTO_HOPOPTS, 1});
  append(whole, reporting_host);
  append(whole, destination);
  append(whole, router_alert);
  append(whole, message);
  const std::span<const std::uint8_t> bytes(whole);
  write_u16(&whole[message_at + 2], icmp6_checksum(bytes.subspan(ipv6_at + 8, 32), bytes.subspan(message_at)));
  return whole;
}

} // namespace

ipv6_address group_number(unsigned number) {
  ipv6_address group{0xff, 0x0e};
  group[13] = 0x0b;
  write_u16(&group[14], number);
  return group;
}

ipv6_address source_number(unsigned number) {
  ipv6_address source{0x20, 0x01, 0x0d, 0xb8, 0, 2};
  write_u16(&source[14], number + 1);
  return source;
}

std::vector<std::uint8_t> make_record(mld_record_type type, const ipv6_address &group,
                                      const std::vector<ipv6_address> &sources) {
  std::vector<std::uint8_t> record{type, 0};
  append_u16(record, sources.size());
  append(record, group);
  for (const ipv6_address &source : sources) {
    append(record, source);
  }
  return record;
}

frame make_v2_report(mld_record_type type, const ipv6_address &group, const std::vector<ipv6_address> &sources) {
  std::vector<std::uint8_t> message{ICMPV6_MLD2_REPORT, 0, 0, 0, 0, 0, 0, 1};
  append(message, make_record(type, group, sources));
  return wrap_message(message, mldv2_routers);
}

frame make_v1_report(const ipv6_address &group) {
  std::vector<std::uint8_t> message{ICMPV6_MGM_REPORT, 0, 0, 0, 0, 0, 0, 0};
  append(message, group);
  return wrap_message(message, group);
}

int open_injector(const char *link) {
  const int injector = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(if_nametoindex(link));
  if (injector < 0 || bind(injector, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == -1) {
    give_up("packet socket");
  }
  return injector;
}

void inject(int injector, const frame &what) {
  if (send(injector, what.data(), what.size(), 0) < 0) {
    give_up("send a report");
  }
}

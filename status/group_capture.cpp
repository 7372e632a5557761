#include "status/group_capture.h"

#include <algorithm>
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <netinet/ip6.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int receive_buffer_bytes = 1 << 20;
constexpr std::uint32_t kept_bytes = sizeof(ip6_hdr);
constexpr std::size_t address_words = sizeof(in6_addr) / sizeof(std::uint32_t);

// Compares one address of the IPv6 header, a word at a time; `skip` instructions lead from its end to the refusal.
void add_comparison(rows_of<sock_filter> &code, std::size_t offset, const in6_addr &address, std::size_t skip) {
  for (std::size_t word = 0; word < address_words; ++word) {
    const std::size_t behind = 2 * (address_words - 1 - word) + skip;
    add_row(code, sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0,
                              static_cast<std::uint32_t>(offset + word * sizeof(std::uint32_t))});
    add_row(code, sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, static_cast<std::uint8_t>(behind + 1),
                              ntohl(address.s6_addr32[word])});
  }
}

// Without a filter every packet of the interface would be copied.
bool attach_filter(int socket, const in6_addr &group, const in6_addr &source) {
  constexpr std::size_t comparison_length = 2 * address_words;
  const bool has_source = !IN6_IS_ADDR_UNSPECIFIED(&source);
  rows_of<sock_filter> code;
  add_comparison(code, offsetof(ip6_hdr, ip6_dst), group, has_source ? comparison_length : 0);
  if (has_source) {
    add_comparison(code, offsetof(ip6_hdr, ip6_src), source, 0);
  }
  add_row(code, sock_filter{BPF_RET | BPF_K, 0, 0, kept_bytes});
  add_row(code, sock_filter{BPF_RET | BPF_K, 0, 0, 0});
  const sock_fprog program{static_cast<unsigned short>(code.count), code.first};
  const bool is_attached = setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) == 0;
  free_rows(code);
  return is_attached;
}

// Of cooked packets, so that the IPv6 header comes first whatever the interface is. ETH_P_ALL alone sees sent ones.
int open_capture(std::uint32_t index, const in6_addr &group, const in6_addr &source) {
  const int opened = socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (opened < 0) {
    return -1;
  }
  setsockopt(opened, SOL_SOCKET, SO_RCVBUF, &receive_buffer_bytes, sizeof(receive_buffer_bytes));
  sockaddr_ll place{};
  place.sll_family = AF_PACKET;
  place.sll_protocol = htons(ETH_P_ALL);
  place.sll_ifindex = static_cast<int>(index);
  if (!attach_filter(opened, group, source) ||
      bind(opened, reinterpret_cast<const sockaddr *>(&place), sizeof(place)) != 0) {
    close(opened);
    return -1;
  }
  return opened;
}

void drain_capture(group_capture &capture) {
  std::array<char, kept_bytes> packet;
  sockaddr_ll from{};
  socklen_t from_length = sizeof(from);
  for (ssize_t got = 0; got >= 0; from_length = sizeof(from)) {
    got = recvfrom(capture.socket, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&from), &from_length);
    if (got > 0 && from.sll_protocol == htons(ETH_P_IPV6)) {
      note_packet(capture, {packet.data(), static_cast<std::size_t>(got)}, from.sll_pkttype == PACKET_OUTGOING);
    }
  }
  // Those that found no room were counted by nobody; they would have been like the others.
  tpacket_stats statistics{};
  socklen_t length = sizeof(statistics);
  if (getsockopt(capture.socket, SOL_PACKET, PACKET_STATISTICS, &statistics, &length) == 0) {
    (capture.sent > capture.arrived ? capture.sent : capture.arrived) += statistics.tp_drops;
  }
}

} // namespace

void begin_capture(rows_of<group_capture> &captures, std::uint32_t index, const group_text &group,
                   const group_text &source) {
  in6_addr group_bytes{};
  in6_addr source_bytes{};
  inet_pton(AF_INET6, group.data(), &group_bytes);
  inet_pton(AF_INET6, source.data(), &source_bytes);
  add_row(captures, group_capture{index, open_capture(index, group_bytes, source_bytes), 0, 0, -1, {}});
}

void end_captures(rows_of<group_capture> &captures) {
  for (group_capture &capture : all_rows(captures)) {
    if (capture.socket >= 0) {
      drain_capture(capture);
      close(capture.socket);
    }
  }
}

void note_packet(group_capture &capture, std::span<const char> packet, bool is_sent) {
  ip6_hdr header;
  if (packet.size() < sizeof(header)) {
    return;
  }
  std::memcpy(&header, packet.data(), sizeof(header));
  if (is_sent) {
    ++capture.sent;
    return;
  }
  ++capture.arrived;
  const int hop_limit = header.ip6_hlim;
  capture.least_hop_limit = capture.least_hop_limit < 0 ? hop_limit : std::min(capture.least_hop_limit, hop_limit);
  inet_ntop(AF_INET6, &header.ip6_src, capture.source.data(), INET6_ADDRSTRLEN);
}

const group_capture *find_capture(const rows_of<group_capture> &captures, std::uint32_t index) {
  for (const group_capture &capture : all_rows(captures)) {
    if (capture.index == index && capture.socket >= 0) {
      return &capture;
    }
  }
  return nullptr;
}

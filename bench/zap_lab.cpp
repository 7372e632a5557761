#include "bench/zap_lab.h"

#include <array>
#include <cstring>
#include <ctime>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr std::uint16_t port = 5000;

} // namespace

zap_lab make_zap_lab() {
  zap_lab lab{make_network(), make_network(), make_network(), -1, -1};
  make_link(lab.router, "down0", lab.host, "host0");
  make_link(lab.router, "up0", lab.source, "source0");
  enter_network(lab.source);
  run_ip("addr add 2001:db8:2::1/64 dev source0 nodad");
  lab.sender = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int link = static_cast<int>(if_nametoindex("source0"));
  const int hops = 16;
  setsockopt(lab.sender, IPPROTO_IPV6, IPV6_MULTICAST_IF, &link, sizeof(link));
  setsockopt(lab.sender, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof(hops));
  enter_network(lab.router);
  run_ip("addr add 2001:db8:2::2/64 dev up0 nodad");
  lab.capture = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IPV6));
  sockaddr_ll where{};
  where.sll_family = AF_PACKET;
  where.sll_protocol = htons(ETH_P_IPV6);
  where.sll_ifindex = static_cast<int>(if_nametoindex("down0"));
  bind(lab.capture, reinterpret_cast<const sockaddr *>(&where), sizeof(where));
  stamp_arrivals(lab.capture);
  return lab;
}

sockaddr_in6 to_port(const ipv6_address &group, std::uint32_t scope) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = to_in6_addr(group);
  address.sin6_scope_id = scope;
  return address;
}

int open_listener(const ipv6_address &group) {
  const int listener = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  stamp_arrivals(listener);
  const sockaddr_in6 local = to_port(group, 0);
  bind(listener, reinterpret_cast<const sockaddr *>(&local), sizeof(local));
  return listener;
}

void join_group(int listener, const ipv6_address &group) {
  ipv6_mreq wanted{};
  wanted.ipv6mr_multiaddr = to_in6_addr(group);
  wanted.ipv6mr_interface = if_nametoindex("host0");
  setsockopt(listener, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &wanted, sizeof(wanted));
}

void stamp_arrivals(int socket) {
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
}

std::int64_t arrival_ns(int socket, std::vector<std::uint8_t> &bytes, int deadline_ms) {
  pollfd waited{socket, POLLIN, 0};
  if (poll(&waited, 1, deadline_ms) != 1) {
    return 0;
  }
  bytes.resize(2048);
  alignas(cmsghdr) std::array<std::uint8_t, 256> control;
  iovec element{bytes.data(), bytes.size()};
  msghdr header{};
  header.msg_iov = &element;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t length = recvmsg(socket, &header, 0);
  bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  for (cmsghdr *part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS) {
      timespec stamp{};
      std::memcpy(&stamp, CMSG_DATA(part), sizeof(stamp));
      return stamp.tv_sec * std::int64_t{1'000'000'000} + stamp.tv_nsec;
    }
  }
  return 0;
}

std::int64_t realtime_ns() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

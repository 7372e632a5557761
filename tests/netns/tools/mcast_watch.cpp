// Somebody who listens at a port without joining: says which datagrams of an IPv6 group arrive on an interface.
//
//   mcast_watch -i IFACE -g GROUP
//
// Prints "watching", and a line "datagram" for each UDP datagram to the group, for at most 600 seconds.

#include "mcast_socket.h"

#include <csignal>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/ip6.h>
#include <unistd.h>

namespace {

constexpr unsigned longest_life_seconds = 600;

int open_watch(const char *interface) {
  const int opened = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IPV6));
  sockaddr_ll place{};
  place.sll_family = AF_PACKET;
  place.sll_protocol = htons(ETH_P_IPV6);
  place.sll_ifindex = static_cast<int>(to_interface_index(interface));
  if (opened == -1 || bind(opened, reinterpret_cast<const sockaddr *>(&place), sizeof place) == -1) {
    give_up("packet socket");
  }
  return opened;
}

bool is_datagram_to(const in6_addr &group, const ip6_hdr &header) {
  return header.ip6_nxt == IPPROTO_UDP && std::memcmp(&header.ip6_dst, &group, sizeof group) == 0;
}

} // namespace

int main(int argc, char **argv) {
  const char *interface = nullptr;
  const char *group_text = nullptr;
  for (int letter = getopt(argc, argv, "i:g:"); letter != -1; letter = getopt(argc, argv, "i:g:")) {
    (letter == 'i' ? interface : group_text) = optarg;
  }
  in6_addr group{};
  if (interface == nullptr || group_text == nullptr || inet_pton(AF_INET6, group_text, &group) != 1) {
    std::fputs("usage: mcast_watch -i IFACE -g GROUP\n", stderr);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  alarm(longest_life_seconds);
  const int watch = open_watch(interface);
  std::puts("watching");
  for (;;) {
    ip6_hdr header{};
    if (recv(watch, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header) &&
        is_datagram_to(group, header)) {
      std::puts("datagram");
    }
  }
}

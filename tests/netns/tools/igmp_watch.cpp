// Prints every IGMP message that passes an interface, either way, until SIGTERM or for ten minutes at most:
//
//   igmp_watch -i IFACE
//
//   query from 192.0.2.1 to 224.0.0.1 for 0.0.0.0 within 100
//   v2-report from 192.0.2.101 to 239.1.2.3 for 239.1.2.3 within 0
//
// "within" is the maximum response code, tenths of a second. A message whose checksum is wrong is printed as "bad".

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr unsigned longest_life_seconds = 600;
constexpr std::size_t shortest_ip_header = 20;
constexpr std::size_t shortest_message = 8;
constexpr std::uint8_t igmp_protocol = 2;

[[noreturn]] void give_up(const char *what) {
  std::perror(what);
  std::exit(2);
}

int open_packet_socket(const char *interface) {
  const int watcher = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_ALL)); // ETH_P_IP would not show what goes out
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
  if (watcher == -1 || address.sll_ifindex == 0 ||
      bind(watcher, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
    give_up(interface);
  }
  return watcher;
}

const char *name_of(std::uint8_t type) {
  switch (type) {
  case 0x11:
    return "query";
  case 0x12:
    return "v1-report";
  case 0x16:
    return "v2-report";
  case 0x17:
    return "leave";
  case 0x22:
    return "v3-report";
  default:
    return "unknown";
  }
}

// The sum of a message with its checksum in place is all ones, in either byte order.
bool is_checksum_good(const std::uint8_t *message, std::size_t length) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < length; ++i) {
    sum += i % 2 == 0 ? static_cast<std::uint32_t>(message[i]) << 8 : message[i];
  }
  while (sum > 0xffff) {
    sum = (sum & 0xffff) + (sum >> 16);
  }
  return sum == 0xffff;
}

void print(const std::uint8_t *packet, std::size_t length) {
  const std::size_t header = std::size_t{4} * (packet[0] & 0x0fU);
  const std::size_t total = std::size_t{packet[2]} * 256 + packet[3];
  if (packet[9] != igmp_protocol || header < shortest_ip_header || total > length ||
      total < header + shortest_message) {
    return;
  }
  const std::uint8_t *message = packet + header;
  char source[INET_ADDRSTRLEN];
  char destination[INET_ADDRSTRLEN];
  char group[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, packet + 12, source, sizeof source);
  inet_ntop(AF_INET, packet + 16, destination, sizeof destination);
  inet_ntop(AF_INET, message + 4, group, sizeof group);
  std::printf("%s from %s to %s for %s within %u\n",
              is_checksum_good(message, total - header) ? name_of(message[0]) : "bad", source, destination, group,
              unsigned{message[1]});
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fputs("usage: igmp_watch -i IFACE\n", stderr);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const int watcher = open_packet_socket(argv[2]);
  alarm(longest_life_seconds);
  std::puts("watching");
  for (;;) {
    std::uint8_t packet[2048];
    sockaddr_ll from{};
    socklen_t from_length = sizeof from;
    const ssize_t length =
        recvfrom(watcher, packet, sizeof packet, 0, reinterpret_cast<sockaddr *>(&from), &from_length);
    if (length >= static_cast<ssize_t>(shortest_ip_header) && ntohs(from.sll_protocol) == ETH_P_IP) {
      print(packet, static_cast<std::size_t>(length));
    }
  }
}

// A stream's source: sends numbered UDP datagrams to a group, IPv6 or IPv4, at a steady rate, then says how many.
//
//   mcast_send -i IFACE -g GROUP -p PORT -n COUNT [-r PER_SECOND] [-k] [-s SOURCE] [-l HOP_LIMIT]
//
// -k: keeps the rate: what the machine was too slow for is sent later, up to 32 datagrams at once. Ends after COUNT
// datagrams, or earlier on SIGTERM; prints "sent N".

#include "mcast_socket.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t stop_is_wanted = 0;

void stop(int) { stop_is_wanted = 1; }

struct stream {
  const char *interface = nullptr;
  const char *group = nullptr;
  const char *source = nullptr; // any address of the interface when absent
  std::uint16_t port = 0;
  long count = 0;
  long per_second = 100;
  int hop_limit = 8; // 1 would end at the router
  bool keeps_rate = false;
};

stream parse(int argc, char **argv) {
  constexpr const char *options = "i:g:p:n:r:s:l:k";
  stream wanted;
  for (int letter = getopt(argc, argv, options); letter != -1; letter = getopt(argc, argv, options)) {
    switch (letter) {
    case 'i':
      wanted.interface = optarg;
      break;
    case 'g':
      wanted.group = optarg;
      break;
    case 's':
      wanted.source = optarg;
      break;
    case 'p':
      wanted.port = static_cast<std::uint16_t>(std::atoi(optarg));
      break;
    case 'n':
      wanted.count = std::atol(optarg);
      break;
    case 'r':
      wanted.per_second = std::atol(optarg);
      break;
    case 'l':
      wanted.hop_limit = std::atoi(optarg);
      break;
    case 'k':
      wanted.keeps_rate = true;
      break;
    default:
      std::exit(2);
    }
  }
  if (wanted.interface == nullptr || wanted.group == nullptr || wanted.count < 1 || wanted.per_second < 1) {
    std::fputs("usage: mcast_send -i IFACE -g GROUP -p PORT -n COUNT [-r PER_SECOND] [-k] [-s SOURCE] [-l HOPS]\n",
               stderr);
    std::exit(2);
  }
  return wanted;
}

constexpr long nanoseconds_per_second = 1'000'000'000;

void pause_between(long per_second) {
  const timespec gap{per_second == 1 ? 1 : 0, per_second == 1 ? 0 : nanoseconds_per_second / per_second};
  nanosleep(&gap, nullptr);
}

long nanoseconds_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * nanoseconds_per_second + now.tv_nsec;
}

// Waits until a datagram is due at the steady rate. Returns how many are.
long wait_until_due(long begin, long sent, long per_second) {
  constexpr long most_at_once = 32;
  long due = (nanoseconds_now() - begin) * per_second / nanoseconds_per_second + 1 - sent;
  if (due <= 0) {
    pause_between(per_second);
    due = 1;
  }
  return due < most_at_once ? due : most_at_once;
}

// An address that was just added is refused until the kernel has looked for duplicates.
void bind_when_ready(int sender, const socket_address &source) {
  constexpr int most_tries = 500;
  constexpr long tries_per_second = 100;
  for (int i = 0; bind(sender, generic(source), source.length) == -1; ++i) {
    if (errno != EADDRNOTAVAIL || i == most_tries) {
      give_up("bind");
    }
    pause_between(tries_per_second);
  }
}

void send_through(int sender, const socket_address &group, unsigned interface, int hop_limit) {
  if (protocol_of(group) == IPPROTO_IPV6) {
    set_option(sender, IPPROTO_IPV6, IPV6_MULTICAST_IF, &interface, sizeof interface, "IPV6_MULTICAST_IF");
    set_option(sender, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hop_limit, sizeof hop_limit, "IPV6_MULTICAST_HOPS");
  } else {
    const ip_mreqn through = to_ipv4_membership({}, interface);
    set_option(sender, IPPROTO_IP, IP_MULTICAST_IF, &through, sizeof through, "IP_MULTICAST_IF");
    set_option(sender, IPPROTO_IP, IP_MULTICAST_TTL, &hop_limit, sizeof hop_limit, "IP_MULTICAST_TTL");
  }
}

} // namespace

int main(int argc, char **argv) {
  const stream wanted = parse(argc, argv);
  const unsigned interface = to_interface_index(wanted.interface);
  const socket_address group = to_socket_address(wanted.group, interface, wanted.port);
  const int sender = socket(group.storage.ss_family, SOCK_DGRAM, 0);
  if (sender == -1) {
    give_up("socket");
  }
  send_through(sender, group, interface, wanted.hop_limit);
  if (wanted.source != nullptr) {
    const socket_address source = to_socket_address(wanted.source, 0, 0);
    bind_when_ready(sender, source);
  }
  std::signal(SIGTERM, stop);
  long sent = 0;
  const long begin = nanoseconds_now();
  for (long i = 0; i < wanted.count && stop_is_wanted == 0;) {
    const long due = wanted.keeps_rate ? wait_until_due(begin, i, wanted.per_second) : 1;
    for (const long end = i + due < wanted.count ? i + due : wanted.count; i < end; ++i) {
      sent += sendto(sender, &i, sizeof i, 0, generic(group), group.length) == sizeof i ? 1 : 0;
    }
    if (!wanted.keeps_rate) {
      pause_between(wanted.per_second);
    }
  }
  std::printf("sent %ld\n", sent);
  return 0;
}

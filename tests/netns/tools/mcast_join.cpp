// A listener on the LAN: joins a group, IPv6 or IPv4, with an ordinary socket and says what arrives.
//
//   mcast_join -i IFACE -g GROUP -p PORT [-s SOURCE]... [-x SOURCE]... [-t SECONDS]
//
// -s: join only this source (several may be given); -x: join all sources but this one. Prints "joined", a line
// "datagram from SOURCE" for each one that arrives, and "left, received N" at the end: on SIGTERM or SIGINT, or after
// SECONDS (600 by default).

#include "mcast_socket.h"

#include <csignal>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr unsigned longest_life_seconds = 600;
constexpr int most_sources = 16;

volatile std::sig_atomic_t stop_is_wanted = 0;

void stop(int) { stop_is_wanted = 1; }

struct membership {
  const char *interface = nullptr;
  const char *group = nullptr;
  std::uint16_t port = 0;
  unsigned seconds = longest_life_seconds;
  const char *included[most_sources] = {};
  int included_count = 0;
  const char *excluded[most_sources] = {};
  int excluded_count = 0;
};

void append(const char *(&sources)[most_sources], int &count) {
  if (count == most_sources) {
    std::fputs("too many sources\n", stderr);
    std::exit(2);
  }
  sources[count++] = optarg;
}

membership parse(int argc, char **argv) {
  membership wanted;
  for (int letter = getopt(argc, argv, "i:g:p:s:x:t:"); letter != -1; letter = getopt(argc, argv, "i:g:p:s:x:t:")) {
    switch (letter) {
    case 'i':
      wanted.interface = optarg;
      break;
    case 'g':
      wanted.group = optarg;
      break;
    case 'p':
      wanted.port = static_cast<std::uint16_t>(std::atoi(optarg));
      break;
    case 's':
      append(wanted.included, wanted.included_count);
      break;
    case 'x':
      append(wanted.excluded, wanted.excluded_count);
      break;
    case 't':
      wanted.seconds = static_cast<unsigned>(std::atoi(optarg));
      break;
    default:
      std::exit(2);
    }
  }
  if (wanted.interface == nullptr || wanted.group == nullptr) {
    std::fputs("usage: mcast_join -i IFACE -g GROUP -p PORT [-s SOURCE]... [-x SOURCE]... [-t SECONDS]\n", stderr);
    std::exit(2);
  }
  return wanted;
}

void change_source(int receiver, int option, const membership &wanted, const char *source, const char *what) {
  group_source_req request{};
  request.gsr_interface = to_interface_index(wanted.interface);
  const socket_address group = to_socket_address(wanted.group, 0, 0);
  const socket_address source_address = to_socket_address(source, 0, 0);
  std::memcpy(&request.gsr_group, &group.storage, group.length);
  std::memcpy(&request.gsr_source, &source_address.storage, source_address.length);
  set_option(receiver, protocol_of(group), option, &request, sizeof request, what);
}

void change_any_source(int receiver, const membership &wanted, int option_v6, int option_v4, const char *what) {
  const unsigned interface = to_interface_index(wanted.interface);
  const socket_address group = to_socket_address(wanted.group, 0, 0);
  if (protocol_of(group) == IPPROTO_IPV6) {
    const ipv6_mreq request = to_ipv6_membership(group, interface);
    set_option(receiver, IPPROTO_IPV6, option_v6, &request, sizeof request, what);
  } else {
    const ip_mreqn request = to_ipv4_membership(group, interface);
    set_option(receiver, IPPROTO_IP, option_v4, &request, sizeof request, what);
  }
}

void join(int receiver, const membership &wanted) {
  if (wanted.included_count == 0) {
    change_any_source(receiver, wanted, IPV6_ADD_MEMBERSHIP, IP_ADD_MEMBERSHIP, "ADD_MEMBERSHIP");
  }
  for (int i = 0; i < wanted.included_count; ++i) {
    change_source(receiver, MCAST_JOIN_SOURCE_GROUP, wanted, wanted.included[i], "MCAST_JOIN_SOURCE_GROUP");
  }
  for (int i = 0; i < wanted.excluded_count; ++i) {
    change_source(receiver, MCAST_BLOCK_SOURCE, wanted, wanted.excluded[i], "MCAST_BLOCK_SOURCE");
  }
}

void leave(int receiver, const membership &wanted) {
  if (wanted.included_count == 0) {
    change_any_source(receiver, wanted, IPV6_DROP_MEMBERSHIP, IP_DROP_MEMBERSHIP, "DROP_MEMBERSHIP");
  }
  for (int i = 0; i < wanted.included_count; ++i) {
    change_source(receiver, MCAST_LEAVE_SOURCE_GROUP, wanted, wanted.included[i], "MCAST_LEAVE_SOURCE_GROUP");
  }
}

// Without SA_RESTART, so that a signal ends the wait for the next datagram.
void stop_on(int signal_number) {
  struct sigaction action {};
  action.sa_handler = stop;
  sigaction(signal_number, &action, nullptr);
}

long receive_until_stopped(int receiver) {
  long received = 0;
  while (stop_is_wanted == 0) {
    char datagram[64];
    socket_address from{};
    from.length = sizeof from.storage;
    if (recvfrom(receiver, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr *>(&from.storage), &from.length) <
        0) {
      continue;
    }
    char text[INET6_ADDRSTRLEN];
    std::printf("datagram from %s\n", to_text(from, text));
    ++received;
  }
  return received;
}

} // namespace

int main(int argc, char **argv) {
  const membership wanted = parse(argc, argv);
  const socket_address group = to_socket_address(wanted.group, to_interface_index(wanted.interface), wanted.port);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const int receiver = socket(group.storage.ss_family, SOCK_DGRAM, 0);
  // Bound to the group, so that the datagrams of another listener's group are not counted here.
  if (receiver == -1 || bind(receiver, generic(group), group.length) == -1) {
    give_up("bind");
  }
  stop_on(SIGTERM);
  stop_on(SIGINT);
  stop_on(SIGALRM);
  alarm(wanted.seconds);
  // A short time-out as well: a signal between the test of the flag and the wait must not be lost.
  const timeval wake_up{0, 100'000};
  setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &wake_up, sizeof wake_up);
  join(receiver, wanted);
  std::puts("joined");
  const long received = receive_until_stopped(receiver);
  leave(receiver, wanted);
  std::printf("left, received %ld\n", received);
  return 0;
}

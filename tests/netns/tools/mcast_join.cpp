// A listener on the LAN: joins a group with an ordinary socket and says what arrives.
//
//   mcast_join -i IFACE -g GROUP -p PORT [-s SOURCE]... [-x SOURCE]... [-t SECONDS]
//
// -s: join only this source (several may be given); -x: join all sources but this one. Prints "joined", a line
// "datagram from SOURCE" for each one that arrives, and "left, received N" at the end: on SIGTERM or SIGINT, or after
// SECONDS (600 unless told otherwise).

#include "mcast_socket.h"

#include <csignal>
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
    case 'i': wanted.interface = optarg; break;
    case 'g': wanted.group = optarg; break;
    case 'p': wanted.port = static_cast<std::uint16_t>(std::atoi(optarg)); break;
    case 's': append(wanted.included, wanted.included_count); break;
    case 'x': append(wanted.excluded, wanted.excluded_count); break;
    case 't': wanted.seconds = static_cast<unsigned>(std::atoi(optarg)); break;
    default: std::exit(2);
    }
  }
  if (wanted.interface == nullptr || wanted.group == nullptr) {
    std::fputs("usage: mcast_join -i IFACE -g GROUP -p PORT [-s SOURCE]... [-x SOURCE]... [-t SECONDS]\n", stderr);
    std::exit(2);
  }
  return wanted;
}

void change_source(int receiver, int option, const sockaddr_in6 &group, const char *source, const char *what) {
  group_source_req request{};
  request.gsr_interface = group.sin6_scope_id;
  const sockaddr_in6 source_address = to_socket_address(source, 0, 0);
  std::memcpy(&request.gsr_group, &group, sizeof group);
  std::memcpy(&request.gsr_source, &source_address, sizeof source_address);
  set_option(receiver, option, &request, sizeof request, what);
}

void change_any_source(int receiver, int option, const sockaddr_in6 &group, const char *what) {
  const ipv6_mreq request{group.sin6_addr, group.sin6_scope_id};
  set_option(receiver, option, &request, sizeof request, what);
}

void join(int receiver, const sockaddr_in6 &group, const membership &wanted) {
  if (wanted.included_count == 0) {
    change_any_source(receiver, IPV6_ADD_MEMBERSHIP, group, "IPV6_ADD_MEMBERSHIP");
  }
  for (int i = 0; i < wanted.included_count; ++i) {
    change_source(receiver, MCAST_JOIN_SOURCE_GROUP, group, wanted.included[i], "MCAST_JOIN_SOURCE_GROUP");
  }
  for (int i = 0; i < wanted.excluded_count; ++i) {
    change_source(receiver, MCAST_BLOCK_SOURCE, group, wanted.excluded[i], "MCAST_BLOCK_SOURCE");
  }
}

void leave(int receiver, const sockaddr_in6 &group, const membership &wanted) {
  if (wanted.included_count == 0) {
    change_any_source(receiver, IPV6_DROP_MEMBERSHIP, group, "IPV6_DROP_MEMBERSHIP");
  }
  for (int i = 0; i < wanted.included_count; ++i) {
    change_source(receiver, MCAST_LEAVE_SOURCE_GROUP, group, wanted.included[i], "MCAST_LEAVE_SOURCE_GROUP");
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
    sockaddr_in6 from{};
    socklen_t length = sizeof from;
    if (recvfrom(receiver, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr *>(&from), &length) < 0) {
      continue;
    }
    char text[INET6_ADDRSTRLEN];
    std::printf("datagram from %s\n", inet_ntop(AF_INET6, &from.sin6_addr, text, sizeof text));
    ++received;
  }
  return received;
}

} // namespace

int main(int argc, char **argv) {
  const membership wanted = parse(argc, argv);
  const sockaddr_in6 group = to_socket_address(wanted.group, to_interface_index(wanted.interface), wanted.port);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const int receiver = socket(AF_INET6, SOCK_DGRAM, 0);
  // Bound to the group, so that the datagrams of another listener's group are not counted here.
  if (receiver == -1 || bind(receiver, reinterpret_cast<const sockaddr *>(&group), sizeof group) == -1) {
    give_up("bind");
  }
  stop_on(SIGTERM);
  stop_on(SIGINT);
  stop_on(SIGALRM);
  alarm(wanted.seconds);
  // A short time-out as well: a signal between the test of the flag and the wait must not be lost.
  const timeval wake_up{0, 100'000};
  setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, &wake_up, sizeof wake_up);
  join(receiver, group, wanted);
  std::puts("joined");
  const long received = receive_until_stopped(receiver);
  leave(receiver, group, wanted);
  std::printf("left, received %ld\n", received);
  return 0;
}

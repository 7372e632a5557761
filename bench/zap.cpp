// From a host's join to its first datagram, through the daemon and through the floor, in the same namespaces in turn:
//
//     [ source ] source0 === up0 [ router: daemon or floor ] down0 === host0 [ host ]
//
// The source sends to the group all the time; what is forwarded is up to the router. The host joins with an ordinary
// socket, so its own random delay before the report is part of the zap. The time from the report's arrival in the
// router to the first datagram, by the kernel's own time stamps, leaves that delay out.
// Usage: bench_zap PROGRAM_FOLDER

#include "bench/figure.h"
#include "bench/floor/floor_proxy.h"
#include "bench/network.h"
#include "bench/program.h"
#include "bench/report_frame.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr unsigned zaps_per_turn = 25; // the daemon holds 128 groups
constexpr unsigned turns = 8;
// Like any query, the daemon's first one, a second after its start, makes it wait for the kernel; zaps are measured
// between queries.
constexpr useconds_t settling_us = 1'400'000;
// A host counts its random delay in ticks of its kernel. If every zap began at the same time after a tick, all would
// take one of a few times, and their median would jump from one to the next.
constexpr useconds_t longest_tick_us = 10'000;  // at 100 ticks a second, the fewest that kernels have
constexpr useconds_t between_phases_us = 6'180; // golden ratio: spreads any number of zaps over the tick
constexpr int zap_deadline_ms = 3000;
constexpr useconds_t send_interval_us = 50;
constexpr std::uint16_t port = 5000;

struct zap_lab {
  network router;
  network host;
  network source;
  int capture; // reports as they arrive in the router
  int sender;
};

struct zap_times {
  std::vector<double> from_join_ms;
  std::vector<double> from_report_ms;
};

sockaddr_in6 to_port(const ipv6_address &group, std::uint32_t scope) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = to_in6_addr(group);
  address.sin6_scope_id = scope;
  return address;
}

// Receives one message with the kernel's time of its arrival; 0 when none comes in time. `skip` tells what to drop.
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

void stamp_arrivals(int socket) {
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
}

void send_until(const zap_lab &lab, const ipv6_address &group, const std::atomic<bool> &is_over) {
  const sockaddr_in6 to = to_port(group, 0);
  const std::array<char, 100> payload{};
  while (!is_over) {
    sendto(lab.sender, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to));
    usleep(send_interval_us);
  }
}

bool is_report_of(const std::vector<std::uint8_t> &frame, const ipv6_address &group) {
  constexpr std::size_t type_at = ETH_HLEN + 40 + 8;
  return frame.size() > type_at && frame[type_at] == ICMPV6_MLD2_REPORT &&
         std::search(frame.begin(), frame.end(), group.begin(), group.end()) != frame.end();
}

// When the first report of the group came; 0 if it was not seen.
std::int64_t report_arrival_ns(const zap_lab &lab, const ipv6_address &group) {
  std::vector<std::uint8_t> frame;
  for (std::int64_t stamp = arrival_ns(lab.capture, frame, 0); stamp != 0; stamp = arrival_ns(lab.capture, frame, 0)) {
    if (is_report_of(frame, group)) {
      return stamp;
    }
  }
  return 0;
}

void drain(int socket) {
  std::vector<std::uint8_t> bytes;
  while (arrival_ns(socket, bytes, 0) != 0) {
  }
}

// Returns the host's socket, which still listens: a leave would make the daemon send queries.
int zap(const zap_lab &lab, const ipv6_address &group, useconds_t phase_us, zap_times &times) {
  drain(lab.capture);
  std::atomic<bool> is_over{false};
  std::thread stream(send_until, std::cref(lab), std::cref(group), std::cref(is_over));
  enter_network(lab.host);
  const int listener = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  stamp_arrivals(listener);
  const sockaddr_in6 local = to_port(group, 0);
  bind(listener, reinterpret_cast<const sockaddr *>(&local), sizeof(local));
  ipv6_mreq wanted{};
  wanted.ipv6mr_multiaddr = to_in6_addr(group);
  wanted.ipv6mr_interface = if_nametoindex("host0");
  usleep(phase_us);
  timespec joined{};
  clock_gettime(CLOCK_REALTIME, &joined); // the clock of the time stamps
  setsockopt(listener, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &wanted, sizeof(wanted));
  std::vector<std::uint8_t> datagram;
  const std::int64_t first = arrival_ns(listener, datagram, zap_deadline_ms);
  is_over = true;
  stream.join();
  const std::int64_t report = report_arrival_ns(lab, group);
  const std::int64_t join = joined.tv_sec * std::int64_t{1'000'000'000} + joined.tv_nsec;
  if (first == 0) {
    give_up("no datagram arrived");
  }
  times.from_join_ms.push_back(static_cast<double>(first - join) / 1e6);
  if (report != 0) {
    times.from_report_ms.push_back(static_cast<double>(first - report) / 1e6);
  }
  return listener;
}

void take_turn(const zap_lab &lab, const std::vector<std::string> &router_program, unsigned &group, zap_times &times) {
  enter_network(lab.router);
  const pid_t router = start_program(router_program);
  wait_for_mifs(2);
  const int companion = prepare_kernel(if_nametoindex("up0"), if_nametoindex("down0"));
  usleep(settling_us);
  std::vector<int> listeners;
  for (unsigned i = 0; i < zaps_per_turn; ++i) {
    listeners.push_back(zap(lab, group_number(group++), i * between_phases_us % longest_tick_us, times));
  }
  enter_network(lab.router);
  stop_program(router);
  for (const int listener : listeners) {
    close(listener);
  }
  wait_for_mifs(0);
  close(companion);
}

zap_lab make_lab() {
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

void print_zaps(const std::string &name, const std::vector<double> &daemon, const std::vector<double> &floor,
                bool is_judged) {
  print_figure("zap", figure_subject{name, "median"}, "ms", median(daemon), median(floor),
               is_judged ? goal{judged::ratio, 1.1} : no_goal);
  print_figure("zap", figure_subject{name, "p99"}, "ms", percentile(daemon, 99), percentile(floor, 99),
               is_judged ? goal{judged::ratio, 1.3} : no_goal);
}

} // namespace

int main(int argc, char **argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const zap_lab lab = make_lab();
  zap_times daemon;
  zap_times floor;
  unsigned group = 0;
  for (unsigned turn = 0; turn < turns; ++turn) {
    take_turn(lab, {folder + "/bench_floor", "up0", "down0"}, group, floor);
    take_turn(lab, {folder + "/tarnwick", "-u", "up0", "-d", "down0"}, group, daemon);
  }
  print_zaps("join to first datagram, " + std::to_string(daemon.from_join_ms.size()) + " zaps", daemon.from_join_ms,
             floor.from_join_ms, true);
  print_zaps("report in the router to first datagram", daemon.from_report_ms, floor.from_report_ms, false);
  return 0;
}

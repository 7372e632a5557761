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
#include "bench/program.h"
#include "bench/report_frame.h"
#include "bench/zap_lab.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <atomic>
#include <linux/if_ether.h>
#include <net/if.h>
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

struct zap_times {
  std::vector<double> from_join_ms;
  std::vector<double> from_report_ms;
};

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
  const int listener = open_listener(group);
  usleep(phase_us);
  const std::int64_t join = realtime_ns();
  join_group(listener, group);
  std::vector<std::uint8_t> datagram;
  const std::int64_t first = arrival_ns(listener, datagram, zap_deadline_ms);
  is_over = true;
  stream.join();
  const std::int64_t report = report_arrival_ns(lab, group);
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
  const zap_lab lab = make_zap_lab();
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

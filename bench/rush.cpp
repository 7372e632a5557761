// The top of the hour: viewers change channels faster than a tick's queries used to take, so that joins wait behind the
// queries of the leaves before them. Through the floor, the daemon under tarnwick-run with its whole log, and the
// daemon as `stdbuf -oL` runs it. Then what general queries on eight interfaces in one tick cost a report that comes
// with them. Usage: bench_rush PROGRAM_FOLDER

#include "bench/figure.h"
#include "bench/floor/floor_proxy.h"
#include "bench/program.h"
#include "bench/report_frame.h"
#include "bench/zap_lab.h"
#include "mld/mld_wire.h"

#include <array>
#include <atomic>
#include <fstream>
#include <linux/if_ether.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr unsigned turns = 5;
constexpr unsigned viewers = 20;
constexpr unsigned changes = 60; // each to a group of its own; with the viewers' first ones fewer than the daemon holds
constexpr std::int64_t between_changes_ns = 1'000'000'000 / 14;
constexpr int change_deadline_ms = 5000;
constexpr useconds_t send_interval_us = 200;
constexpr useconds_t settling_us = 1'400'000;       // the first query is over
constexpr useconds_t repeated_joins_us = 2'500'000; // hosts say every join twice
constexpr unsigned lan_count = 8;
constexpr unsigned starts = 9;

struct change {
  ipv6_address group;
  int listener;
  std::int64_t joined_ns;
};

struct rush_times {
  std::vector<double> change_ms;
  double processor_seconds;
};

using wanted_groups = std::array<std::atomic<bool>, changes>;

std::vector<pid_t> with_children(pid_t program) {
  std::vector<pid_t> all{program};
  const std::string number = std::to_string(program);
  std::ifstream children("/proc/" + number + "/task/" + number + "/children");
  for (pid_t child = 0; children >> child;) {
    all.push_back(child);
  }
  return all;
}

double processor_seconds_of_all(const std::vector<pid_t> &programs) {
  double seconds = 0;
  for (const pid_t program : programs) {
    seconds += processor_seconds_of(program);
  }
  return seconds;
}

void send_what_is_wanted(const zap_lab &lab, unsigned first_group, const wanted_groups &wanted,
                         const std::atomic<bool> &is_over) {
  const std::array<char, 100> payload{};
  while (!is_over) {
    for (unsigned i = 0; i < changes; ++i) {
      if (wanted[i]) {
        const sockaddr_in6 to = to_port(group_number(first_group + i), 0);
        sendto(lab.sender, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to));
      }
    }
    usleep(send_interval_us);
  }
}

// Notes the first datagram of every channel that has come by `until_ns`.
void note_arrivals(std::vector<change> &open, unsigned from, wanted_groups &wanted, std::int64_t until_ns,
                   rush_times &times) {
  std::vector<std::uint8_t> datagram;
  do {
    bool is_waiting = false;
    for (unsigned i = from; i < open.size(); ++i) {
      if (wanted[i - from]) {
        const std::int64_t first = arrival_ns(open[i].listener, datagram, 0);
        is_waiting = is_waiting || first == 0;
        if (first != 0) {
          wanted[i - from] = false;
          times.change_ms.push_back(static_cast<double>(first - open[i].joined_ns) / 1e6);
        }
      }
    }
    if (!is_waiting && open.size() == from + changes) {
      return;
    }
    usleep(1000);
  } while (realtime_ns() < until_ns);
}

change join_channel(const ipv6_address &group) {
  change made{group, open_listener(group), realtime_ns()};
  join_group(made.listener, group);
  return made;
}

void change_channels(const zap_lab &lab, unsigned first_group, std::vector<change> &open, rush_times &times) {
  wanted_groups wanted{};
  std::atomic<bool> is_over{false};
  std::thread stream(send_what_is_wanted, std::cref(lab), first_group + viewers, std::cref(wanted), std::cref(is_over));
  const std::int64_t start = realtime_ns();
  for (unsigned i = 0; i < changes; ++i) {
    close(open[i].listener); // the viewer's channel before
    open.push_back(join_channel(group_number(first_group + viewers + i)));
    wanted[i] = true;
    note_arrivals(open, viewers, wanted, start + (i + 1) * between_changes_ns, times);
  }
  note_arrivals(open, viewers, wanted, realtime_ns() + change_deadline_ms * std::int64_t{1'000'000}, times);
  is_over = true;
  stream.join();
}

void take_turn(const zap_lab &lab, const std::vector<std::string> &command, const std::string &log,
               unsigned &first_group, rush_times &times) {
  enter_network(lab.router);
  const pid_t router = start_program(command, log.c_str());
  wait_for_mifs(2);
  const int companion = prepare_kernel(if_nametoindex("up0"), if_nametoindex("down0"));
  usleep(settling_us);
  enter_network(lab.host);
  std::vector<change> open;
  for (unsigned i = 0; i < viewers; ++i) {
    open.push_back(join_channel(group_number(first_group + i)));
  }
  usleep(repeated_joins_us);
  const std::vector<pid_t> programs = with_children(router);
  const double before = processor_seconds_of_all(programs);
  const std::size_t noted = times.change_ms.size();
  change_channels(lab, first_group, open, times);
  times.processor_seconds += processor_seconds_of_all(programs) - before;
  if (times.change_ms.size() != noted + changes) {
    give_up("a channel never came");
  }
  enter_network(lab.router);
  stop_program(router);
  for (unsigned i = changes; i < open.size(); ++i) {
    close(open[i].listener);
  }
  wait_for_mifs(0);
  close(companion);
  first_group += viewers + changes;
}

void print_rush(const std::string &who, const rush_times &times, const rush_times &floor, bool is_judged) {
  const std::string name = std::to_string(times.change_ms.size()) + " channel changes, " + who + ": ";
  print_figure("rush", name + "median", "ms", median(times.change_ms), median(floor.change_ms), no_goal);
  print_figure("rush", name + "p90", "ms", percentile(times.change_ms, 90), percentile(floor.change_ms, 90),
               is_judged ? goal{judged::ratio, 1.3} : no_goal);
  print_figure("rush", name + "p99", "ms", percentile(times.change_ms, 99), percentile(floor.change_ms, 99),
               is_judged ? goal{judged::ratio, 1.5} : no_goal);
  print_figure("rush", name + "processor time of each", "us",
               times.processor_seconds * 1e6 / static_cast<double>(times.change_ms.size()),
               floor.processor_seconds * 1e6 / static_cast<double>(floor.change_ms.size()), no_goal);
}

std::vector<std::string> deployed(const std::string &folder, const std::string &lans) {
  return {folder + "/tarnwick-run",
          "-u",
          "up0",
          "-d",
          lans,
          "--no-assist",
          "--log=all",
          "--runtime-folder=" + folder + "/rush-run"};
}

std::vector<std::string> by_lines(const std::string &folder, const std::string &lans) {
  return {"/usr/bin/stdbuf", "-oL", folder + "/tarnwick", "-u", "up0", "-d", lans};
}

void measure_rush(const std::string &folder) {
  const zap_lab lab = make_zap_lab();
  const std::string log = folder + "/rush.log";
  rush_times floor{};
  rush_times daemon{};
  rush_times line_by_line{};
  unsigned group = 0;
  for (unsigned turn = 0; turn < turns; ++turn) {
    take_turn(lab, {folder + "/bench_floor", "up0", "down0"}, log, group, floor);
    take_turn(lab, deployed(folder, "down0"), log, group, daemon);
    take_turn(lab, by_lines(folder, "down0"), log, group, line_by_line);
  }
  print_rush("under tarnwick-run", daemon, floor, true);
  print_rush("by lines, without the library", line_by_line, floor, false);
}

struct query_lab {
  network router;
  int capture; // what comes out of the LAN interfaces
};

query_lab make_query_lab() {
  const network outside = make_network();
  query_lab lab{make_network(), -1};
  make_link(lab.router, "up0", outside, "source0");
  for (unsigned i = 0; i < lan_count; ++i) {
    make_link(lab.router, "down" + std::to_string(i), outside, "host" + std::to_string(i));
  }
  enter_network(outside);
  lab.capture = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IPV6));
  stamp_arrivals(lab.capture);
  enter_network(lab.router);
  return lab;
}

std::string all_lans() {
  std::string names = "down0";
  for (unsigned i = 1; i < lan_count; ++i) {
    names += ",down" + std::to_string(i);
  }
  return names;
}

std::int64_t next_query_ns(int capture) {
  constexpr std::size_t type_at = ETH_HLEN + 40 + 8;
  std::vector<std::uint8_t> bytes;
  for (std::int64_t stamp = arrival_ns(capture, bytes, change_deadline_ms); stamp != 0;
       stamp = arrival_ns(capture, bytes, change_deadline_ms)) {
    if (bytes.size() > type_at && bytes[type_at] == ICMPV6_MGM_QUERY) {
      return stamp;
    }
  }
  give_up("no query came");
  return 0;
}

// A report that comes with the first query waits until the last one is out; the close behind that one comes on top.
void measure_queries(const std::string &folder, const std::string &who, const std::vector<std::string> &command,
                     goal to_reach) {
  std::vector<double> spans_ms;
  const query_lab lab = make_query_lab();
  for (unsigned i = 0; i < starts; ++i) {
    const pid_t router = start_program(command, (folder + "/rush.log").c_str());
    wait_for_mifs(lan_count + 1);
    const std::int64_t first = next_query_ns(lab.capture);
    std::int64_t last = first;
    for (unsigned sent = 1; sent < lan_count; ++sent) {
      last = next_query_ns(lab.capture);
    }
    spans_ms.push_back(static_cast<double>(last - first) / 1e6);
    stop_program(router);
    wait_for_mifs(0);
  }
  print_figure("rush", "queries on 8 interfaces in one tick, from first to last, " + who, "ms", median(spans_ms), 0,
               to_reach);
}

} // namespace

int main(int argc, char **argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  measure_rush(folder);
  measure_queries(folder, "under tarnwick-run", deployed(folder, all_lans()), goal{judged::value, 2});
  measure_queries(folder, "without the library", by_lines(folder, all_lans()), no_goal);
  return 0;
}

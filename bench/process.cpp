// The daemon as a process: its memory at three points of its life, its idle load, and the time to its first query. And
// the companion beside it: memory and idle load.
// Usage: bench_process DAEMON COMPANION EMPTY_PROGRAM WAKING_PROGRAM STATIC_DAEMON STATIC_COMPANION

#include "bench/figure.h"
#include "bench/network.h"
#include "bench/program.h"
#include "bench/report_frame.h"
#include "mld/mld_router.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr unsigned million = 1'000'000;
constexpr unsigned reports_at_once = 64;
constexpr unsigned idle_seconds = 20;
constexpr unsigned settling_seconds = 5; // for hosts' answers to the first queries
constexpr unsigned starts = 3;
constexpr int query_deadline_ms = 5000;

// The companion's private dirty memory above an empty program when it joined ff02::16 and kept the static entry alone;
// measured with this program, with full pools.
constexpr double companion_before_kib = 4;
constexpr double companion_more_kib = 60;

struct process_lab {
  network router;
  int host; // packet socket on the host's end of the link
};

process_lab make_lab() {
  const network outside = make_network();
  process_lab lab{make_network(), -1};
  make_link(lab.router, "down0", outside, "host0");
  make_link(lab.router, "up0", outside, "source0");
  enter_network(outside);
  lab.host = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IPV6));
  sockaddr_ll where{};
  where.sll_family = AF_PACKET;
  where.sll_protocol = htons(ETH_P_IPV6);
  where.sll_ifindex = static_cast<int>(if_nametoindex("host0"));
  if (lab.host < 0 || bind(lab.host, reinterpret_cast<const sockaddr *>(&where), sizeof(where)) == -1) {
    give_up("packet socket");
  }
  enter_network(lab.router);
  const int membership = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6); // held until the end
  ipv6_mreq routers{};
  routers.ipv6mr_multiaddr.s6_addr[0] = 0xff;
  routers.ipv6mr_multiaddr.s6_addr[1] = 0x02;
  routers.ipv6mr_multiaddr.s6_addr[15] = 0x16;
  routers.ipv6mr_interface = if_nametoindex("down0");
  if (setsockopt(membership, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &routers, sizeof(routers)) == -1) {
    give_up("join ff02::16");
  }
  return lab;
}

pid_t start_daemon(const std::string &daemon) { return start_program({daemon, "-u", "up0", "-d", "down0"}); }

void wait_for_query(const process_lab &lab) {
  constexpr std::size_t type_at = ETH_HLEN + 40 + 8;
  std::array<std::uint8_t, 2048> frame;
  pollfd waited{lab.host, POLLIN, 0};
  while (poll(&waited, 1, query_deadline_ms) == 1) {
    const ssize_t length = recv(lab.host, frame.data(), frame.size(), 0);
    if (length > static_cast<ssize_t>(type_at) && frame[type_at] == ICMPV6_MGM_QUERY) {
      return;
    }
  }
  give_up("no query came");
}

// Asleep in select: it has read all that had come.
void wait_until_asleep(pid_t daemon) {
  const std::string path = "/proc/" + std::to_string(daemon) + "/stat";
  for (int tries = 0; tries < 100'000; ++tries) {
    std::ifstream file(path);
    std::string number;
    std::string name;
    char state = '?';
    file >> number >> name >> state;
    if (state == 'S') {
      return;
    }
    if (file.fail()) {
      give_up("the daemon has ended");
    }
    usleep(20);
  }
}

void send_all(const process_lab &lab, pid_t daemon, const std::vector<frame> &reports, unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    inject(lab.host, reports[i % reports.size()]);
    if (i % reports_at_once == reports_at_once - 1) {
      wait_until_asleep(daemon);
    }
  }
  wait_until_asleep(daemon);
}

// Groups with all their sources, a host record for each source as far as they go, and pending queries.
void fill_pools(const process_lab &lab, pid_t daemon) {
  std::vector<ipv6_address> sources;
  for (unsigned i = 0; i < MLD_MAX_SOURCES; ++i) {
    sources.push_back(source_number(i));
  }
  std::vector<frame> reports;
  for (unsigned i = 0; i < MLD_GROUP_POOL_SIZE; ++i) {
    reports.push_back(make_v2_report(MLD2_MODE_IS_INCLUDE, group_number(i), sources));
  }
  send_all(lab, daemon, reports, MLD_GROUP_POOL_SIZE);
  reports.clear();
  for (unsigned i = 0; i < MLD_QUERY_POOL_SIZE; ++i) {
    reports.push_back(make_v2_report(MLD2_CHANGE_TO_INCLUDE, group_number(i), {}));
  }
  send_all(lab, daemon, reports, MLD_QUERY_POOL_SIZE);
}

// Every kind of report, for known groups and for some that find no room. Only one group is ever left: a leave's queries
// make the proxy wait for the kernel, and a million of them would take hours.
void send_a_million(const process_lab &lab, pid_t daemon) {
  std::vector<frame> reports;
  for (unsigned i = 0; i < MLD_GROUP_POOL_SIZE + 16; ++i) {
    const ipv6_address group = group_number(i);
    reports.push_back(make_v1_report(group));
    reports.push_back(make_v2_report(MLD2_MODE_IS_INCLUDE, group, {source_number(0), source_number(i)}));
    reports.push_back(make_v2_report(MLD2_CHANGE_TO_EXCLUDE, group, {}));
    reports.push_back(make_v2_report(MLD2_ALLOW_NEW_SOURCES, group, {source_number(i)}));
  }
  reports.push_back(make_v2_report(MLD2_CHANGE_TO_INCLUDE, group_number(0), {}));
  send_all(lab, daemon, reports, million);
}

void print_memory(const std::string &when, const std::map<std::string, long> &daemon,
                  const std::map<std::string, long> &empty, bool is_judged) {
  const auto dirty = static_cast<double>(daemon.at("Private_Dirty"));
  const auto dirty_of_empty = static_cast<double>(empty.at("Private_Dirty"));
  print_figure("memory", "private dirty, " + when, "KiB", dirty, dirty_of_empty, no_goal);
  print_figure("memory", "private dirty above an empty program, " + when, "KiB", dirty - dirty_of_empty, 0,
               is_judged ? goal{judged::value, 100} : no_goal);
  print_figure("memory", "proportional, " + when, "KiB", static_cast<double>(daemon.at("Pss")),
               static_cast<double>(empty.at("Pss")), no_goal);
}

std::map<std::string, long> memory_of_empty(const std::string &program) {
  const pid_t empty = start_program({program});
  usleep(100'000);
  const std::map<std::string, long> memory = memory_of(empty);
  stop_program(empty);
  return memory;
}

void measure_memory(const process_lab &lab, const std::string &program, const std::string &empty_program) {
  const std::map<std::string, long> empty = memory_of_empty(empty_program);
  const pid_t daemon = start_daemon(program);
  wait_for_query(lab);
  sleep(1);
  print_memory("after start", memory_of(daemon), empty, true);
  fill_pools(lab, daemon);
  const std::map<std::string, long> full = memory_of(daemon);
  print_memory("with full pools", full, empty, true);
  const std::int64_t start = now_ns();
  send_a_million(lab, daemon);
  const double seconds = static_cast<double>(now_ns() - start) / 1e9;
  const std::map<std::string, long> after = memory_of(daemon);
  print_memory("after a million reports", after, empty, true);
  print_figure("memory", "more after a million reports", "KiB",
               static_cast<double>(after.at("Private_Dirty") - full.at("Private_Dirty")), 0, goal{judged::value, 0});
  print_note("memory", "The million reports took " + std::to_string(static_cast<int>(seconds)) + " s.");
  stop_program(daemon);
  wait_for_mifs(0);
}

// Entries of every group and source of full pools, which take the companion a record each.
void measure_companion(const process_lab &lab, const std::string &daemon_program, const std::string &program,
                       const std::string &empty_program) {
  const std::map<std::string, long> empty = memory_of_empty(empty_program);
  const pid_t companion = start_program({program, "-u", "up0", "-d", "down0"});
  const pid_t daemon = start_daemon(daemon_program);
  wait_for_query(lab);
  sleep(settling_seconds);
  const auto above_empty = [&] {
    return static_cast<double>(memory_of(companion).at("Private_Dirty") - empty.at("Private_Dirty"));
  };
  print_figure("memory", figure_subject{"companion, private dirty above an empty program", "after start"}, "KiB",
               above_empty(), 0, no_goal);
  const long before = wakeups_of(companion);
  sleep(idle_seconds);
  print_figure("tick", figure_subject{"companion, wake-ups in " + std::to_string(idle_seconds) + " idle seconds"}, "",
               static_cast<double>(wakeups_of(companion) - before), 0, goal{judged::value, 0});
  fill_pools(lab, daemon);
  wait_until_asleep(companion);
  print_figure("memory", figure_subject{"companion, private dirty above an empty program", "with full pools"}, "KiB",
               above_empty(), 0, goal{judged::value, companion_before_kib + companion_more_kib});
  stop_program(daemon);
  wait_for_mifs(0);
  stop_program(companion);
}

void measure_first_query(const process_lab &lab, const std::string &program) {
  std::vector<double> seconds;
  for (unsigned i = 0; i < starts; ++i) {
    std::array<std::uint8_t, 2048> old;
    while (recv(lab.host, old.data(), old.size(), MSG_DONTWAIT) > 0) {
    }
    const std::int64_t start = now_ns();
    const pid_t daemon = start_daemon(program);
    wait_for_query(lab);
    seconds.push_back(static_cast<double>(now_ns() - start) / 1e9);
    stop_program(daemon);
    wait_for_mifs(0);
  }
  print_figure("start", "exec to first query", "s", median(seconds), 0, goal{judged::value, 1.1});
}

// Both at the same time: the cost of a wake-up depends on what else the machine does.
void measure_idle_load(const process_lab &lab, const std::string &program, const std::string &waking_program) {
  const pid_t daemon = start_daemon(program);
  const pid_t waking = start_program({waking_program});
  wait_for_query(lab);
  sleep(1);
  const double daemon_before = processor_seconds_of(daemon);
  const double waking_before = processor_seconds_of(waking);
  sleep(idle_seconds);
  const double daemon_share = (processor_seconds_of(daemon) - daemon_before) / idle_seconds;
  const double waking_share = (processor_seconds_of(waking) - waking_before) / idle_seconds;
  print_figure("tick", figure_subject{"idle load", "beside a program that only wakes up"}, "% of a core",
               daemon_share * 100, waking_share * 100, goal{judged::value, 0.01});
  stop_program(waking);
  stop_program(daemon);
  wait_for_mifs(0);
}

} // namespace

// Programs that bring their C library along: all of their memory is their own.
void measure_static_programs(const process_lab &lab, const std::string &daemon_program, const std::string &program) {
  const pid_t companion = start_program({program, "-u", "up0", "-d", "down0"});
  const pid_t daemon = start_daemon(daemon_program);
  wait_for_query(lab);
  sleep(settling_seconds);
  print_figure("memory", figure_subject{"static daemon, private dirty", "after start"}, "KiB",
               static_cast<double>(memory_of(daemon).at("Private_Dirty")), 0, no_goal);
  print_figure("memory", figure_subject{"static companion, private dirty", "after start"}, "KiB",
               static_cast<double>(memory_of(companion).at("Private_Dirty")), 0, no_goal);
  stop_program(daemon);
  wait_for_mifs(0);
  stop_program(companion);
}

int main(int argc, char **argv) {
  if (argc != 7) {
    std::fputs("Usage: bench_process DAEMON COMPANION EMPTY_PROGRAM WAKING_PROGRAM STATIC_DAEMON STATIC_COMPANION\n",
               stderr);
    return 2;
  }
  sync(); // pages of a program just built count as dirty until they are on the disk
  const process_lab lab = make_lab();
  measure_first_query(lab, argv[1]);
  measure_idle_load(lab, argv[1], argv[4]);
  measure_memory(lab, argv[1], argv[3]);
  measure_companion(lab, argv[1], argv[2], argv[3]);
  measure_static_programs(lab, argv[5], argv[6]);
  return 0;
}

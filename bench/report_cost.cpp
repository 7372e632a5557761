// What a report costs the daemon, compared with the floor, on the real kernel. Two networks, one process:
//
//     host0 === down0 [ daemon's functions ] up0 === source0
//     host1 === down1 [ floor              ] up1 === source1
//
// Reports are put on the host's end of the link and wait in the socket; only what follows is timed: the wait, the
// receive, and all that is done with it, in processor time, so that waiting for a processor does not count. The
// variants take turns within each round, a few reports each.

#include "bench/figure.h"
#include "bench/log_pipe.h"
#include "bench/report_case.h"

#include <csignal>
#include <cstring>
#include <ctime>
#include <map>
#include <net/if.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr unsigned reports_per_turn = 16; // the receive queue holds 256
constexpr unsigned rounds = 150;
constexpr std::array<unsigned, 5> group_counts{1, 32, 64, 96, 127};
constexpr char deployed_daemon[] = "under tarnwick-run";
constexpr char deployed_both[] = "under tarnwick-run with its reader";
constexpr char burst_daemon[] = "under tarnwick-run, in bursts of 16";
constexpr char burst_both[] = "under tarnwick-run with its reader, in bursts of 16";

// The daemon's log as tarnwick-run takes it: flushed after each event, and read by another process.
struct deployed_log {
  FILE *log;
  clockid_t reader_clock; // the reader's processor time
};

struct bench_world {
  floor_proxy floor;
  int daemon_injector;
  int floor_injector;
  std::array<int, 2> pipe;
  FILE *quiet; // where the scene is set
  std::map<std::string, FILE *> logs;
  deployed_log deployed; // log null: not measured
  deployed_log bursts;
};

void wait_until_readable(int socket) {
  pollfd waited{socket, POLLIN, 0};
  if (poll(&waited, 1, 1000) != 1) {
    give_up("a report did not arrive");
  }
}

double clock_cost_ns() {
  std::vector<double> costs;
  for (int i = 0; i < 1001; ++i) {
    const std::int64_t start = thread_cpu_ns();
    costs.push_back(static_cast<double>(thread_cpu_ns() - start));
  }
  return median(costs);
}

void queue_reports(int injector, report_case which) {
  const frame report = report_case_frame(which);
  for (unsigned i = 0; i < reports_per_turn; ++i) {
    inject(injector, report);
  }
}

// Nanoseconds for each of a turn's reports.
double daemon_turn(bench_world &world, report_case which, FILE *log, double clock_ns) {
  empty_log(log);
  set_daemon_scene(which);
  if (list_get_head(&MldRouter.free_hosts) == nullptr) {
    give_up("no host record is left: the report would not be taken down");
  }
  queue_reports(world.daemon_injector, which);
  double spent = 0;
  for (unsigned i = 0; i < reports_per_turn; ++i) {
    const host_records hosts = linked_hosts_of(group_number(target_number));
    wait_until_readable(MldRouter.socket);
    switch_log(log);
    const std::int64_t start = thread_cpu_ns();
    linked_receive(world.pipe[0]);
    spent += static_cast<double>(thread_cpu_ns() - start) - clock_ns;
    switch_log(world.quiet);
    restore_daemon_scene(which, hosts);
  }
  clear_daemon_scene();
  return spent / reports_per_turn;
}

double clock_ns_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

struct deployed_cost {
  double daemon;
  double both;
};

// `waits`: the reader is let run after every report, so that nothing is saved by taking several at once. Otherwise a
// turn's reports are one burst.
deployed_cost deployed_turn(bench_world &world, const deployed_log &deployed, bool waits, report_case which,
                            double clock_ns) {
  FILE *log = deployed.log;
  set_daemon_scene(which);
  queue_reports(world.daemon_injector, which);
  deployed_cost cost{};
  const double reader_before = clock_ns_of(deployed.reader_clock);
  for (unsigned i = 0; i < reports_per_turn; ++i) {
    const host_records hosts = linked_hosts_of(group_number(target_number));
    wait_until_readable(MldRouter.socket);
    switch_log(log);
    const std::int64_t start = thread_cpu_ns();
    linked_receive(world.pipe[0]);
    fflush(log); // as the preloaded library does before the next wait
    cost.daemon += static_cast<double>(thread_cpu_ns() - start) - clock_ns;
    switch_log(world.quiet);
    if (waits) {
      let_reader_run(log);
    }
    restore_daemon_scene(which, hosts);
  }
  clear_daemon_scene();
  empty_log(log);
  cost.both = cost.daemon + clock_ns_of(deployed.reader_clock) - reader_before;
  return {cost.daemon / reports_per_turn, cost.both / reports_per_turn};
}

double floor_turn(bench_world &world, report_case which, double clock_ns) {
  set_floor_scene(world.floor, which);
  queue_reports(world.floor_injector, which);
  floor_message message;
  double spent = 0;
  for (unsigned i = 0; i < reports_per_turn; ++i) {
    wait_until_readable(world.floor.router_socket);
    const std::int64_t start = thread_cpu_ns();
    floor_receive(world.floor, message);
    floor_requests(world.floor, which);
    spent += static_cast<double>(thread_cpu_ns() - start) - clock_ns;
    restore_floor_scene(world.floor, which);
  }
  clear_floor_scene(world.floor, which);
  return spent / reports_per_turn;
}

using turns = std::map<std::string, std::vector<double>>;

void add_costs(turns &all, const char *daemon, const char *both, const deployed_cost &cost) {
  all[daemon].push_back(cost.daemon);
  all[both].push_back(cost.both);
}

turns measure(bench_world &world, report_case which, bool has_bursts, double clock_ns) {
  turns all;
  for (unsigned round = 0; round < rounds; ++round) {
    all["floor"].push_back(floor_turn(world, which, clock_ns));
    for (const auto &[name, log] : world.logs) {
      all[name].push_back(daemon_turn(world, which, log, clock_ns));
    }
    if (world.deployed.log != nullptr) {
      add_costs(all, deployed_daemon, deployed_both, deployed_turn(world, world.deployed, true, which, clock_ns));
      if (has_bursts) { // each ends with the reader's rest
        add_costs(all, burst_daemon, burst_both, deployed_turn(world, world.bursts, false, which, clock_ns));
      }
    }
  }
  return all;
}

void add_groups(bench_world &world, unsigned from, unsigned to) {
  for (unsigned number = from; number < to; ++number) {
    linked_apply(MLD2_MODE_IS_EXCLUDE, group_number(number), {});
    floor_join(world.floor, group_number(number));
    floor_add_entry(world.floor, In6AddrAny, group_number(number));
  }
  // The group measured takes two host records, and with one for each of the others the pool would be empty.
  linked_restore_hosts(group_number(0), linked_hosts_of(group_number(0)));
}

void build_world(bench_world &world) {
  std::signal(SIGPIPE, SIG_IGN);
  const network daemon_side = make_network();
  const network floor_side = make_network();
  const network outside = make_network();
  world.quiet = std::fopen("/dev/null", "w");
  switch_log(world.quiet);
  make_link(daemon_side, "down0", outside, "host0");
  make_link(daemon_side, "up0", outside, "source0");
  make_link(floor_side, "down1", outside, "host1");
  make_link(floor_side, "up1", outside, "source1");
  enter_network(outside);
  world.daemon_injector = open_injector("host0");
  world.floor_injector = open_injector("host1");
  enter_network(floor_side);
  world.floor = floor_open("up1", "down1");
  prepare_kernel(world.floor.upstream, world.floor.downstream);
  enter_network(daemon_side);
  linked_start("up0", "down0");
  prepare_kernel(if_nametoindex("up0"), if_nametoindex("down0"));
  if (pipe(world.pipe.data()) == -1) {
    give_up("pipe");
  }
}

constexpr std::size_t own_processor = 0;
constexpr std::size_t other_processor = 1;
constexpr char by_lines[] = "pipe by lines";
constexpr char across[] = "pipe across processors";

bool is_extra(const std::string &variant) { return variant == by_lines || variant == across; }

bool is_deployed(const std::string &variant) { return variant.starts_with(deployed_daemon); }

goal goal_of(const std::string &variant, double limit) {
  const bool is_judged = !is_extra(variant) && !is_deployed(variant) && variant != "floor";
  return is_judged ? goal{judged::ratio, limit} : no_goal;
}

// A report that makes the kernel do something, on a LAN with one group.
goal deployed_goal(const std::string &variant, report_case which, unsigned groups) {
  const bool is_judged = groups == 1 && (which == report_case::new_group || which == report_case::known_group);
  return is_judged ? goal{judged::ratio, variant.starts_with(deployed_both) ? 2.5 : 1.5} : no_goal;
}

// To unlink a record the daemon walks its list: with many groups and hosts that adds to the floor.
double limit_of(const std::string &variant, unsigned groups) {
  constexpr unsigned many_groups = 64;
  if (variant != "no log") {
    return 2;
  }
  return groups < many_groups ? 1.15 : 1.3;
}

// On the daemon's own processor.
deployed_log open_deployed_log(void (*read_all)(int descriptor)) {
  pid_t reader = 0;
  deployed_log deployed{};
  deployed.log = open_pipe_with_reader(own_processor, read_all, &reader);
  setvbuf(deployed.log, nullptr, _IOFBF, 16384); // as the preloaded library does
  clock_getcpuclockid(reader, &deployed.reader_clock);
  return deployed;
}

void open_logs(bench_world &world) {
  world.logs["/dev/null"] = std::fopen("/dev/null", "w");
  world.logs["file"] = fdopen(memfd_create("log", 0), "w"); // in memory, as a router's /var is
  world.logs["pipe"] = open_pipe_with_reader(own_processor);
  world.logs[across] = open_pipe_with_reader(other_processor);
  world.deployed = open_deployed_log(read_each_alone);
  world.bursts = open_deployed_log(read_as_deployed);
  world.logs[by_lines] = open_pipe_with_reader(own_processor);
  setvbuf(world.logs[by_lines], nullptr, _IOLBF, BUFSIZ);
  print_note("report",
             "All of it runs on one processor, as on most routers. `under tarnwick-run` is the daemon with its "
             "library, which hands each report's lines over in one write; `with its reader` counts the "
             "supervisor's processor time as well, woken for every report, --log=info; in bursts it lets the lines "
             "of 10 ms gather. Not judged: `pipe "
             "across processors` has the reader on another one, which the kernel wakes with an interrupt, "
             "expensive in a virtual machine; `pipe by lines` is the daemon under `stdbuf -oL` for "
             "each line to be in the journal at once: the kernel takes every line by itself then, and "
             "that is by far the most expensive part of a report.");
}

struct kept_figure {
  std::map<unsigned, double> by_groups;
};

void print_costs(report_case which, unsigned groups, const turns &all, std::map<std::string, kept_figure> &kept) {
  const double floor = median(all.at("floor"));
  kept["floor"].by_groups[groups] = floor;
  for (const auto &[name, costs] : all) {
    if (name == "floor") {
      continue;
    }
    // A ratio for each round, so that whatever slows the machine down slows both sides.
    std::vector<double> ratios;
    for (std::size_t i = 0; i < costs.size(); ++i) {
      ratios.push_back(costs[i] / all.at("floor")[i]);
    }
    kept[name].by_groups[groups] = median(costs);
    const goal to_reach =
        is_deployed(name) ? deployed_goal(name, which, groups) : goal_of(name, limit_of(name, groups));
    print_figure("report", figure_subject{report_case_name(which), name, groups}, "us", median(ratios) * floor / 1000,
                 floor / 1000, to_reach);
  }
}

void print_growth(report_case which, const std::map<std::string, kept_figure> &kept, bool is_mute) {
  for (const auto &[name, costs] : kept) {
    if (name == "floor" && !is_mute) {
      continue; // once is enough
    }
    print_figure("growth", figure_subject{report_case_name(which), name}, "us", costs.by_groups.at(127) / 1000,
                 costs.by_groups.at(1) / 1000, goal_of(name, 1.3));
  }
}

// The C library hands the log over in pieces of 4 KiB: what the kernel asks for one of them.
void print_write_cost(const std::string &name, FILE *log, double clock_ns) {
  constexpr std::size_t piece_bytes = 4096;
  const std::string piece(piece_bytes, 'x');
  std::vector<double> costs;
  for (int i = 0; i < 501; ++i) {
    empty_log(log);
    const std::int64_t start = thread_cpu_ns();
    if (write(fileno(log), piece.data(), piece.size()) != static_cast<ssize_t>(piece.size())) {
      give_up("writing to a log");
    }
    costs.push_back(static_cast<double>(thread_cpu_ns() - start) - clock_ns);
  }
  print_figure("write", name, "us", median(costs) / 1000, 0, no_goal);
}

} // namespace

int main(int argc, char **argv) {
  const bool is_mute = argc > 1 && std::strcmp(argv[1], "--mute") == 0;
  stay_on_processor(own_processor);
  bench_world world{};
  build_world(world);
  if (is_mute) {
    world.logs["no log"] = std::fopen("/dev/null", "w");
  } else {
    open_logs(world);
  }
  std::map<report_case, std::map<std::string, kept_figure>> kept;
  const double clock_ns = clock_cost_ns();
  unsigned groups = 0;
  for (const unsigned wanted : group_counts) {
    add_groups(world, groups, wanted);
    groups = wanted;
    for (const report_case which : all_report_cases) {
      const bool has_bursts = wanted == group_counts.front() || wanted == group_counts.back();
      print_costs(which, groups, measure(world, which, has_bursts, clock_ns), kept[which]);
    }
  }
  for (const report_case which : all_report_cases) {
    print_growth(which, kept[which], is_mute);
  }
  for (const auto &[name, log] : world.logs) {
    if (!is_mute && !is_extra(name)) {
      print_write_cost(name, log, clock_ns);
    }
  }
  return 0;
}

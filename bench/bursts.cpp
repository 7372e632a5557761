// How many reports of a burst survive while the proxy's one thread is busy, compared with the floor:
//
//     host0 === down0 [ proxy, a thread of its own ] up0 === source0
//
// The burst starts together with a tick that sends queries. For daemon and floor alike, the receive queue has its
// default size, and closing the packet socket of a query waits for the kernel.

#include "bench/figure.h"
#include "bench/floor/floor_proxy.h"
#include "bench/linked_proxy.h"
#include "mld/mld_group.h"
#include "mld/mld_query_frame.h"
#include "mld/mld_receive.h"
#include "mld/mld_timers.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <atomic>
#include <net/if.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr unsigned tries = 3;
constexpr unsigned full_tick = 128;           // queries
constexpr std::int32_t never = 1'000'000'000; // seconds
constexpr int quiet_ms = 60;                  // nothing more comes
constexpr std::array<unsigned, 3> burst_sizes{100, 1000, 10000};
constexpr std::array<unsigned, 4> query_counts{0, 1, 16, full_tick};

const ipv6_address target = group_number(500);
const ipv6_address source = source_number(0);

struct burst_side {
  network lan;
  int injector;
  floor_proxy floor; // unused on the daemon's side
  bool is_daemon;
};

struct burst_result {
  double survived;
  double tick_ms;
  double tick_cpu_us;
};

// Makes the next tick send that many queries: the general one, and one for each group except the burst's own.
void make_queries_due(unsigned count) {
  mld_interface *intr = linked_downstream();
  const unsigned group_count = std::min(count, full_tick - 1);
  intr->query_timer = count == full_tick ? 0 : never;
  for (unsigned number = 0; number < group_count; ++number) {
    mld_group *group = mld_take_group(log_site{"mld", "bench", 0}, group_number(number));
    static std::array<mld_query, full_tick> queries; // more than the pool holds
    queries[number] = mld_query{{nullptr}, ICMPV6_MGM_QUERY, 0, group_number(number)};
    list_append(&group->queries, &queries[number].link);
    mld_append_source(group, source, 1)->source_timer = -1; // queried by name, so that one socket is opened
    group->state = MLD_GROUP_CHECKING_MEMBERSHIP;
    group->retransmit_timer = 0;
    mld_link_group(intr, group);
  }
}

void forget_groups(unsigned count) {
  mld_interface *intr = linked_downstream();
  for (unsigned number = 0; number < count; ++number) {
    mld_group *group = mld_find_group(intr, group_number(number));
    if (group != nullptr) {
      mld_unlink_group(intr, group);
      mld_release_group(group);
    }
  }
  MldRouter.free_queries = {}; // the queries were not the pool's
  intr->query_timer = never;
}

// What the daemon sends for each of the groups; the other end of the link answers it likewise.
std::span<const std::uint8_t> example_query() {
  static std::array<std::uint8_t, MLD_QUERY_FRAME_BYTES + IPV6_ADDRESS_BYTES> query{};
  mld_fill_query_frame(query, group_number(0), reporting_host);
  mld_write_query_source(query, 0, source);
  return mld_finish_query_frame(query, 1);
}

void run_tick(const burst_side &side, unsigned queries) {
  if (side.is_daemon) {
    mld_router_timer_expired();
    return;
  }
  const std::span<const std::uint8_t> query = example_query();
  for (unsigned i = 0; i < queries; ++i) {
    floor_send_query(side.floor, query);
  }
}

bool handle_report(const burst_side &side) {
  if (side.is_daemon) {
    const std::uint32_t before = linked_downstream()->join_count;
    mld_network_socket_read_data();
    return linked_downstream()->join_count != before;
  }
  static floor_message message;
  if (!floor_receive(side.floor, message) || message.bytes[0] != ICMPV6_MLD2_REPORT) {
    return false;
  }
  floor_join_source(side.floor, target, source);
  return true;
}

// Runs the tick, then serves reports until none arrives for a while. Returns how many it served.
burst_result serve(const burst_side &side, unsigned queries, std::atomic<int> &progress) {
  burst_result result{};
  progress = 1; // the burst may begin
  const std::int64_t start = now_ns();
  const std::int64_t cpu_start = thread_cpu_ns();
  if (queries > 0) {
    run_tick(side, queries);
  }
  result.tick_ms = static_cast<double>(now_ns() - start) / 1e6;
  result.tick_cpu_us = static_cast<double>(thread_cpu_ns() - cpu_start) / 1e3;
  pollfd waited{side.is_daemon ? MldRouter.socket : side.floor.router_socket, POLLIN, 0};
  while (poll(&waited, 1, quiet_ms) == 1 || progress == 1) {
    if ((waited.revents & POLLIN) != 0 && handle_report(side)) {
      result.survived += 1;
    }
  }
  return result;
}

burst_result run_burst(const burst_side &side, unsigned reports, unsigned queries) {
  static const frame report = make_v2_report(MLD2_MODE_IS_INCLUDE, target, {source});
  if (side.is_daemon) {
    make_queries_due(queries);
  }
  burst_result result{};
  std::atomic<int> progress{0};
  std::thread proxy([&] { result = serve(side, queries, progress); });
  while (progress == 0) {
  }
  if (queries > 0) {
    usleep(2000); // the tick has begun
  }
  for (unsigned i = 0; i < reports; ++i) {
    inject(side.injector, report);
  }
  progress = 2;
  proxy.join();
  if (side.is_daemon) {
    forget_groups(queries);
  }
  return result;
}

std::string name_of(unsigned reports, unsigned queries) {
  return std::to_string(reports) + " reports, " +
         (queries == 0 ? "idle" : std::to_string(queries) + (queries == 1 ? " query" : " queries"));
}

void print_query_cost(unsigned queries, const std::vector<burst_result> &daemon,
                      const std::vector<burst_result> &floor) {
  const auto each = [queries](const std::vector<burst_result> &results, double burst_result::*what) {
    std::vector<double> values;
    for (const burst_result &result : results) {
      values.push_back(result.*what / queries);
    }
    return median(values);
  };
  const std::string name = std::to_string(queries) + (queries == 1 ? " query" : " queries") + " in one tick: ";
  print_figure("bursts", name + "elapsed for each", "ms", each(daemon, &burst_result::tick_ms),
               each(floor, &burst_result::tick_ms), no_goal);
  print_figure("bursts", name + "processor time for each", "us", each(daemon, &burst_result::tick_cpu_us),
               each(floor, &burst_result::tick_cpu_us), no_goal);
}

void compare(const burst_side &daemon, const burst_side &floor, unsigned queries) {
  std::vector<burst_result> all_of_daemon;
  std::vector<burst_result> all_of_floor;
  for (const unsigned reports : burst_sizes) {
    std::vector<double> survived;
    std::vector<double> survived_of_floor;
    const unsigned rounds = queries == full_tick ? tries - 1 : tries;
    for (unsigned i = 0; i < rounds; ++i) {
      all_of_floor.push_back(run_burst(floor, reports, queries));
      all_of_daemon.push_back(run_burst(daemon, reports, queries));
      survived_of_floor.push_back(all_of_floor.back().survived);
      survived.push_back(all_of_daemon.back().survived);
    }
    print_figure("bursts", name_of(reports, queries) + ": survived", "reports", median(survived),
                 median(survived_of_floor), no_goal);
  }
  if (queries > 0) {
    print_query_cost(queries, all_of_daemon, all_of_floor);
  }
}

burst_side make_side(const std::string &number, network lan) {
  const network own = make_network();
  make_link(own, "down" + number, lan, "host" + number);
  make_link(own, "up" + number, lan, "source" + number);
  enter_network(lan);
  burst_side side{lan, open_injector(("host" + number).c_str()), {}, false};
  enter_network(own);
  return side;
}

} // namespace

int main() {
  switch_log(std::fopen("/dev/null", "w"));
  const network outside = make_network();
  burst_side floor = make_side("1", outside);
  floor.floor = floor_open("up1", "down1");
  prepare_kernel(floor.floor.upstream, floor.floor.downstream);
  floor_join_source(floor.floor, target, source);
  burst_side daemon = make_side("0", outside);
  daemon.is_daemon = true;
  linked_start("up0", "down0");
  linked_downstream()->query_timer = never;
  prepare_kernel(if_nametoindex("up0"), if_nametoindex("down0"));
  linked_apply(MLD2_MODE_IS_INCLUDE, target, {source});
  for (const unsigned queries : query_counts) {
    compare(daemon, floor, queries);
  }
  print_note("bursts", "A query of a group for all sources opens a second packet socket and closes both, as it must: "
                       "there the kernel's wait counts twice. The queries here ask for a source. How long the "
                       "kernel waits depends on what the machine does besides; the processor time shows what is ours.");
  return 0;
}

// Cost of one tick while nothing expires, compared with a bare walk over the same records. No kernel is involved.

#include "bench/floor/bare_walk.h"
#include "bench/report_frame.h"
#include "mld/mld_group.h"
#include "mld/mld_router.h"
#include "mld/mld_start_up.h"
#include "mld/mld_timers.h"

#include <benchmark/benchmark.h>

namespace {

constexpr unsigned interface_count = 4;
constexpr std::int32_t never = 2'000'000'000; // seconds

// The walk follows the order in which reports made the records, not the order of their memory.
void build_records(unsigned group_count) {
  static std::array<mld_interface, interface_count + 1> interfaces;
  init_mld_config();
  init_mld_group();
  interfaces = {};
  interfaces[0].role = MLD_ROLE_UPSTREAM;
  list_add(&MldRouter.interfaces, &interfaces[0].link);
  for (unsigned i = 1; i <= interface_count; ++i) {
    interfaces[i].role = MLD_ROLE_DOWNSTREAM;
    interfaces[i].is_querier = 1;
    interfaces[i].query_timer = never;
    list_add(&MldRouter.interfaces, &interfaces[i].link);
  }
  for (unsigned number = 0; number < group_count; ++number) {
    mld_group *group = mld_take_group(log_site{"mld", "bench", 0}, group_number(number));
    group->group_timer = never;
    for (unsigned source = 0; source < MLD_MAX_SOURCES; ++source) {
      mld_append_source(group, source_number(source), 1)->source_timer = never;
    }
    mld_link_group(&interfaces[1 + number % interface_count], group);
  }
}

void tick(benchmark::State &state) {
  build_records(static_cast<unsigned>(state.range(0)));
  for (auto step : state) {
    mld_router_timer_expired();
  }
}

void walk(benchmark::State &state) {
  build_records(static_cast<unsigned>(state.range(0)));
  for (auto step : state) {
    benchmark::DoNotOptimize(bare_walk(MldRouter));
  }
}

} // namespace

BENCHMARK(tick)->Arg(0)->Arg(MLD_GROUP_POOL_SIZE);
BENCHMARK(walk)->Arg(0)->Arg(MLD_GROUP_POOL_SIZE);
BENCHMARK_MAIN();

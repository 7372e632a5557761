// Cost of one log line. Standard output is what the caller makes it; the figures go to the JSON file of
// --benchmark_out.

#include "core/address.h"
#include "core/log.h"

#include <benchmark/benchmark.h>
#include <cstdio>

extern "C" void *__libc_malloc(std::size_t size);

namespace {

long allocations = 0;

constexpr ipv6_address example{0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 3};

void report_allocations(benchmark::State &state, long before) {
  state.counters["allocations"] = static_cast<double>(allocations - before);
}

void line_with_address(benchmark::State &state) {
  log_debug(MLD_STEP_OF("mld_router_version2_report_handler"), "[PACKET] group     : %s", ADDRESS_TEXT(example));
  const long before = allocations;
  for (auto step : state) {
    log_debug(MLD_STEP_OF("mld_router_version2_report_handler"), "[PACKET] group     : %s", ADDRESS_TEXT(example));
  }
  report_allocations(state, before);
}

void plain_line(benchmark::State &state) {
  for (auto step : state) {
    log_debug(MLD_STEP_OF("mld_proxy_add_membership"), "setsockopt: IPV6_ADD_MEMBERSHIP");
  }
}

void line_by_printf(benchmark::State &state) {
  for (auto step : state) {
    std::printf(
        "%c:%-4s:%-36s#%4d: [PACKET] group     : %02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:"
        "%02x%02x\n",
        'D', "mld", "mld_router_version2_report_handler", 76, example[0], example[1], example[2], example[3],
        example[4], example[5], example[6], example[7], example[8], example[9], example[10], example[11], example[12],
        example[13], example[14], example[15]);
  }
}

} // namespace

// Every allocation of the process comes through here, the C library's own included.
extern "C" void *malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}

BENCHMARK(line_with_address);
BENCHMARK(plain_line);
BENCHMARK(line_by_printf);
BENCHMARK_MAIN();

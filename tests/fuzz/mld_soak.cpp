// Simulated months of a LAN: hosts join, leave, block, allow and go silent, other queriers come and go, second by
// second, with all records checked after every tick.
//
// mld_soak [days] [seed]
#include "core/memory.h"
#include "mld/mld_router.h"
#include "mld_world.h"
#include "mute_kernel.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

constexpr long seconds_per_day = 86400;
constexpr std::size_t longest_event = 48;

struct tally {
  long ticks;
  long events;
  long restarts;
  std::size_t most_bytes; // in use between ticks
};

// Quiet nights and busy evenings: how likely an event is in this second, in thousandths.
int event_chance(long second) {
  const long hour = second / 3600 % 24;
  if (hour < 6) {
    return 5;
  }
  return hour >= 19 && hour < 23 ? 300 : 60;
}

void play_event(std::mt19937_64 &random, tally &total) {
  std::vector<std::uint8_t> script(1 + static_cast<std::size_t>(random() % longest_event));
  for (std::uint8_t &byte : script) {
    byte = static_cast<std::uint8_t>(random());
  }
  constexpr std::uint8_t report_steps = 10; // reports, MLDv1, queries, raw messages: no ticks, no restarts
  script[0] = static_cast<std::uint8_t>(random() % report_steps);
  world::run_mld_step(script);
  ++total.events;
}

void play_day(std::mt19937_64 &random, tally &total) {
  for (long second = 0; second < seconds_per_day; ++second) {
    if (static_cast<int>(random() % 1000) < event_chance(second)) {
      play_event(random, total);
    }
    world::tick_mld();
    ++total.ticks;
    total.most_bytes = std::max(total.most_bytes, mute::Kernel.bytes_in_use);
  }
}

} // namespace

int main(int argc, char **argv) {
  const long days = argc > 1 ? std::atol(argv[1]) : 90;
  const unsigned long seed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : std::random_device{}();
  std::fprintf(stderr, "%ld days, seed %lu\n", days, seed);
  mute::silence();
  tally total{};
  mute::play([&] {
    std::mt19937_64 random(seed);
    world::start_mld();
    const std::size_t bytes_at_start = mute::Kernel.bytes_in_use;
    for (long day = 0; day < days; ++day) {
      play_day(random, total);
      if (mute::Kernel.bytes_in_use != bytes_at_start) {
        mute::fail("memory grew from " + std::to_string(bytes_at_start) + " to " +
                   std::to_string(mute::Kernel.bytes_in_use) + " bytes");
      }
      if (day % 7 == 6) { // the operator restarts it once a week: hosts that were lost for good come back
        world::stop_mld();
        world::start_mld();
        ++total.restarts;
      }
    }
    world::quiet_down_mld();
    world::stop_mld();
  });
  std::fprintf(stderr, "%ld ticks, %ld events, %ld restarts, %llu requests, at most %zu bytes in use\n", total.ticks,
               total.events, total.restarts, static_cast<unsigned long long>(mute::Kernel.requests), total.most_bytes);
  return 0;
}

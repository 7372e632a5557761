#include "soak.h"

#include "mute_kernel.h"
#include "mute_memory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace world {

namespace {

constexpr long default_days = 90;
constexpr long seconds_per_day = 86400;
constexpr long days_per_week = 7;
constexpr std::size_t longest_event = 48;

struct tally {
  long ticks;
  long events;
  long restarts;
  std::size_t most_bytes; // in use between ticks
};

// Quiet nights and busy evenings: the probability of an event in this second, in thousandths.
int event_chance(long second) {
  const long hour = second / 3600 % 24;
  if (hour < 6) {
    return 5;
  }
  return hour >= 19 && hour < 23 ? 300 : 60;
}

void play_event(const soaked_side &side, std::mt19937_64 &random, tally &total) {
  std::vector<std::uint8_t> script(1 + static_cast<std::size_t>(random() % longest_event));
  for (std::uint8_t &byte : script) {
    byte = static_cast<std::uint8_t>(random());
  }
  script[0] = static_cast<std::uint8_t>(random() % static_cast<unsigned int>(side.message_steps));
  side.step(script);
  ++total.events;
}

void play_day(const soaked_side &side, std::mt19937_64 &random, tally &total) {
  for (long second = 0; second < seconds_per_day; ++second) {
    if (static_cast<int>(random() % 1000) < event_chance(second)) {
      play_event(side, random, total);
    }
    side.tick();
    ++total.ticks;
    total.most_bytes = std::max(total.most_bytes, mute::MemoryUse.bytes);
  }
}

void play_days(const soaked_side &side, long days, unsigned long seed, tally &total) {
  std::mt19937_64 random(seed);
  side.start();
  const std::size_t bytes_at_start = mute::MemoryUse.bytes;
  for (long day = 0; day < days; ++day) {
    play_day(side, random, total);
    if (mute::MemoryUse.bytes != bytes_at_start) {
      mute::fail("memory went from " + std::to_string(bytes_at_start) + " to " + std::to_string(mute::MemoryUse.bytes) +
                 " bytes");
    }
    if (day % days_per_week == days_per_week - 1) { // a restart brings lost host records back
      side.stop();
      side.start();
      ++total.restarts;
    }
  }
  side.quiet_down();
  side.stop();
}

} // namespace

int run_soak(const soaked_side &side, int argc, char **argv) {
  const long days = argc > 1 ? std::atol(argv[1]) : default_days;
  const unsigned long seed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : std::random_device{}();
  std::fprintf(stderr, "%ld days, seed %lu\n", days, seed);
  mute::silence();
  tally total{};
  mute::play([&] { play_days(side, days, seed, total); });
  std::fprintf(stderr, "%ld ticks, %ld events, %ld restarts, %llu requests, at most %zu bytes in use\n", total.ticks,
               total.events, total.restarts, static_cast<unsigned long long>(mute::Kernel.requests), total.most_bytes);
  return 0;
}

} // namespace world

// Simulated days of the companion's table: [days] [seed].
#include "entries_world.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

int main(int argc, char **argv) {
  constexpr long default_days = 30;
  constexpr long seconds_per_day = 86400;
  constexpr unsigned long events_in_hundred_seconds = 20;
  constexpr std::size_t longest_event = 48;
  const long days = argc > 1 ? std::atol(argv[1]) : default_days;
  const unsigned long seed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1;
  std::printf("seed %lu\n", seed);
  std::mt19937_64 random(seed);
  long events = 0;
  world::start_entries();
  for (long second = 0; second < days * seconds_per_day; ++second) {
    if (random() % 100 < events_in_hundred_seconds) {
      std::vector<std::uint8_t> script(static_cast<std::size_t>(1 + random() % longest_event));
      for (std::uint8_t &byte : script) {
        byte = static_cast<std::uint8_t>(random());
      }
      world::play_entries_step(script);
      ++events;
    }
    world::pass_second_of_entries();
  }
  std::printf("%ld days, %ld events\n", days, events);
  return EXIT_SUCCESS;
}

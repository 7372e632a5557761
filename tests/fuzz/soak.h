// Simulated months of a LAN: hosts join, leave and go silent, other queriers come and go, second by second, with all
// records checked after every tick.
#pragma once

#include <cstdint>
#include <span>

namespace world {

// The proxy that is soaked.
struct soaked_side {
  void (*start)();
  void (*stop)();
  void (*tick)();
  void (*step)(std::span<const std::uint8_t> script);
  void (*quiet_down)();
  int message_steps; // steps below this number are messages: no ticks, no restarts
};

// Arguments: [days] [seed]. Prints the seed first and the sum at the end. Returns the exit status.
int run_soak(const soaked_side &side, int argc, char **argv);

} // namespace world

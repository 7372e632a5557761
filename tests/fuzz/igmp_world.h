// An IGMP proxy on the mute kernel, moved by scripts of bytes: what fuzzers mutate and soaks draw at random.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace world {

// What the first byte of a step stands for; the bytes behind it are the step's own.
enum class igmp_step : std::uint8_t {
  message = 0, // report, leave or query; so is every number below the next
  raw_datagram = 7,
  tick = 8,        // so is every number below the next
  many_ticks = 11, // up to 256
  refusals,        // of some of the next requests
  state_dump,
  restart,                // a stop, then a start in either mode, with other interfaces or with refusals on the way
  message_from_elsewhere, // from nowhere, from upstream, or without packet information
  burst,                  // the same message for many groups
  count
};

// Brings a proxy up in mode 4to4 or 4to6 with one upstream and three downstream interfaces. With refusals pending it
// may fail half-way, as on a router; the next step tries again.
void start_igmp();

// Stops it and checks that every record was freed.
void stop_igmp();

// Carries out the script's steps, checking all records after each one. The script's first byte chooses the mode.
void run_igmp_script(std::span<const std::uint8_t> script);

// The first step of the script alone, on the running proxy, with the checks.
void run_igmp_step(std::span<const std::uint8_t> script);

// Lets an hour pass without a host: every group must end, every timer run out.
void quiet_down_igmp();

// One tick, with the checks.
void tick_igmp();

} // namespace world

// An IGMP proxy on the mute kernel, moved by scripts of bytes: what fuzzers mutate and soaks draw at random.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace world {

// Brings a proxy up in mode 4to4 or 4to6 with one upstream and three downstream interfaces. With refusals pending it
// may fail half-way, as on a router; the next step tries again.
void start_igmp();

// Stops it and checks that every record was freed.
void stop_igmp();

// Carries out the script's steps, checking all records after each one. The first byte chooses the mode; then, one step
// each:
//   0-6 report, leave or query    7 raw datagram    8-10 tick    11 up to 256 ticks
//   12 refuse some of the next requests    13 state dump
//   14 stop, and start in either mode, with other interfaces or with refusals on the way
//   15 message from nowhere, from upstream or without packet information    16 burst of messages for many groups
void run_igmp_script(std::span<const std::uint8_t> script);

// The first step of the script alone, on the running proxy, with the checks.
void run_igmp_step(std::span<const std::uint8_t> script);

// Lets an hour pass without a host: every group must end, every timer run out.
void quiet_down_igmp();

// One tick, with the checks.
void tick_igmp();

} // namespace world

// An MLD proxy on the mute kernel, moved by scripts of bytes: what fuzzers mutate and soaks draw at random.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace world {

// Brings a proxy up with one upstream and three downstream interfaces (indexes 2 to 4, and 40, which cannot be a
// forwarding output). With refusals pending it may fail half-way, as on a router; the next step tries again.
void start_mld();

// Stops it and checks that every record but the deleted hosts was freed.
void stop_mld();

// Carries out the script's steps, checking all records after each one. The script's bytes, one step each:
//   0-6 MLDv2 report made of records from small tables    7 MLDv1 report    8 query    9 raw message
//   10 tick    11 up to 256 ticks    12 refuse some of the next requests    13 state dump
//   14 stop, and start with other interfaces or with refusals on the way
//   15 message from nowhere, from upstream or without packet information    16 burst of messages for many groups
void run_mld_script(std::span<const std::uint8_t> script);

// The first step of the script alone, on the running proxy, with the checks.
void run_mld_step(std::span<const std::uint8_t> script);

// Lets an hour pass without a host: every group must end, every timer run out.
void quiet_down_mld();

// One tick, with the checks.
void tick_mld();

// Checks all records; ends the program with a word if something is wrong.
void check_mld();

} // namespace world

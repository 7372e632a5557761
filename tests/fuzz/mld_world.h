// An MLD proxy on the mute kernel, moved by scripts of bytes: what fuzzers mutate and soaks draw at random.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace world {

// What the first byte of a step stands for; the bytes behind it are the step's own.
enum class mld_step : std::uint8_t {
  report = 0, // MLDv2, with records from small tables; so is every number below the next
  v1_report = 7,
  v1_query,
  raw_message,
  tick,
  many_ticks, // up to 256
  refusals,   // of some of the next requests
  state_dump,
  restart,                // a stop, then a start with other interfaces or with refusals on the way
  message_from_elsewhere, // from nowhere, from upstream, or without packet information
  burst,                  // the same report for many groups
  count
};

// Brings a proxy up with one upstream and three downstream interfaces (indexes 2 to 4, and 40, which cannot be a
// forwarding output). With refusals pending it may fail half-way, as on a router; the next step tries again.
void start_mld();

// Stops it and checks that every record but the deleted hosts was freed.
void stop_mld();

// Carries out the script's steps, checking all records after each one.
void run_mld_script(std::span<const std::uint8_t> script);

// The first step of the script alone, on the running proxy, with the checks.
void run_mld_step(std::span<const std::uint8_t> script);

// Lets an hour pass without a host: every group must end, every timer run out.
void quiet_down_mld();

// One tick, with the checks.
void tick_mld();

// Checks all records; ends the program with a message if something is wrong.
void check_mld();

} // namespace world

// A script's bytes, one after the other; zeros after the end.
#pragma once

#include "mute_kernel.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace world {

struct script_reader {
  std::span<const std::uint8_t> bytes;
  std::size_t offset;

  bool is_at_end() const { return offset >= bytes.size(); }
  std::uint8_t byte() { return is_at_end() ? 0 : bytes[offset++]; }
  std::uint8_t below(std::size_t limit) { return static_cast<std::uint8_t>(byte() % limit); }
};

// Bytes: for how many requests, after how many, which of eight.
inline void plan_refusals(script_reader &script) {
  const std::uint8_t length = script.byte();
  const std::uint8_t grants = script.byte();
  mute::Kernel.refusals = {grants, length, script.byte()};
}

// A start makes some 400 requests. Every other start succeeds; in the rest some requests are refused, from any point
// on.
inline void plan_refusals_of_start(script_reader &script) {
  if (script.below(2) == 0) {
    return;
  }
  constexpr unsigned int values_of_byte = 256;
  const unsigned int later = script.below(2) * values_of_byte;
  plan_refusals(script);
  mute::Kernel.refusals.grants += later;
}

} // namespace world

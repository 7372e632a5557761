// A script's bytes, one after the other; zeros behind the end.
#pragma once

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

} // namespace world

// A row of the table in which the companion notes who has spoken on the LANs. The table is in memory without a path
// (memfd_create(2)); tarnwick-status reads it through /proc/PID/fd.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr char HEARD_TABLE_NAME[] = "tarnwick-heard";
inline constexpr std::size_t HEARD_ROWS = 85; // as many as fit into a page of memory

enum class heard_kind : std::uint32_t {
  nothing, // the row is free
  mldv1_report,
  mldv2_report,
  other_query, // a general query of another router
  own_query
};

struct heard_row {
  std::int64_t heard_at_ms; // CLOCK_MONOTONIC
  heard_kind kind;
  std::uint32_t index; // interface
  std::array<std::uint8_t, 16> group;
  std::array<std::uint8_t, 16> host;
};

// The state at one moment: the daemon's joined with the kernel's tables, and rates since an earlier moment.
#pragma once

#include "status/daemon_process.h"
#include "status/kernel_tables.h"
#include "status/state_request.h"

#include <cstdint>

// The kernel's tables with the time of reading, for rates.
struct traffic_sample {
  std::int64_t milliseconds; // monotonic_milliseconds() at the reading
  rows_of<mif_row> mifs;
  rows_of<cache_row> entries;
  rows_of<device_row> devices;
};

// What the count of queries shows while one watches. Whether the other querier was there before is not known.
enum class other_querier {
  unknown, // none was heard since the first look, or too long ago
  asks,
  silent // it has missed its next query, and the daemon may still leave asking to it
};

struct interface_row {
  interface_counters counters;
  bool is_upstream;
  const mif_row *mif;  // null: the kernel has no such MIF
  bool is_made_anew{}; // the kernel's interface of this name has another index than the MIF
  other_querier querier{};
  long silent_seconds{}; // since its last query was counted
};

// When the count of queries on an interface last went up.
struct heard_queries {
  interface_text interface;
  std::array<char, 8> protocol;
  std::int32_t count;
  std::int64_t heard_at; // milliseconds of the sample; -1: before the first look
};

enum class stream_kind {
  wanted,     // listeners, and an entry that forwards to them
  no_entry,   // listeners, but nothing in the kernel
  left_over,  // an entry whose last listener is gone
  unresolved, // packets that arrive and that no entry takes
  static_tree // (::, ::), the companion's
};

struct stream_row {
  stream_kind kind;
  const cache_row *entry; // null for no_entry
  double bits_per_second;
  double packets_per_second;
  std::uint64_t packets{}; // since the first look; an entry that was made anew goes on counting
  std::uint64_t bytes{};
  std::uint32_t silent_outputs{}; // bit n: MIF n, to which the kernel forwards but which does not transmit
};

// What a stream's earlier entries had counted when they were made anew.
struct stream_total {
  group_text group;
  group_text origin;
  std::uint64_t packets; // of the newest entry
  std::uint64_t bytes;
  std::uint64_t carried_packets; // of those before it
  std::uint64_t carried_bytes;
};

// One line per group that the daemon holds or the kernel forwards, with its interfaces and streams.
struct group_row {
  group_text group;
  std::size_t first_listener;
  std::size_t listener_count;
  std::size_t first_stream;
  std::size_t stream_count;
};

inline constexpr std::size_t MOST_TOTALS = 1024;

struct snapshot {
  process_facts daemon;
  pid_t companion; // a trusted one in the daemon's network namespace; 0: none is seen
  rows_of<interface_row> interfaces;
  rows_of<group_line> listeners; // ordered by group
  rows_of<stream_row> streams;   // ordered by group
  rows_of<group_row> groups;     // by address, the static tree last
  rows_of<stream_total> totals;  // over all looks at this daemon, at most MOST_TOTALS
  rows_of<heard_queries> heard;  // the same, one for each interface
  const rows_of<mif_row> *mifs;  // of the newer sample
  bool has_rates;                // there was an earlier moment to compare with
  double sample_seconds;         // between the two moments
  double fastest_bits_per_second;
};

// Reads the tables of the daemon's network namespace. Returns false when the kernel keeps none; errno says why.
bool read_traffic(traffic_sample &sample, pid_t daemon);

// Joins both. `joined` points into `now`, which must outlive it. If `before` and `now` are one sample, it has no rates.
void join_snapshot(snapshot &joined, const process_facts &daemon, const daemon_state &state,
                   const traffic_sample &before, const traffic_sample &now);

void free_snapshot(snapshot &joined);

// Looks for the companion of the joined daemon.
void find_companion(snapshot &joined);

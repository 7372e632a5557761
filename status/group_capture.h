// Counting a group's packets on interfaces while a sample is taken, by packet sockets that a filter narrows to the
// group.
#pragma once

#include "status/state_files.h"

#include <cstdint>

struct group_capture {
  std::uint32_t index; // of the interface
  int socket;          // -1: could not be opened
  std::uint64_t arrived;
  std::uint64_t sent;
  int least_hop_limit; // of those that arrived; -1: none did
  group_text source;   // of the last one that arrived
};

// Begins to count on one more interface, in the calling process's network namespace. A `source` of "" means any.
void begin_capture(rows_of<group_capture> &captures, std::uint32_t index, const group_text &group,
                   const group_text &source);

// Reads what has come and closes the sockets.
void end_captures(rows_of<group_capture> &captures);

// Notes one packet, beginning with its IPv6 header. What is not a whole header is passed over.
void note_packet(group_capture &capture, std::span<const char> packet, bool is_sent);

// Null if there is none, or if it could not be opened.
const group_capture *find_capture(const rows_of<group_capture> &captures, std::uint32_t index);

// Why the daemon ended, in plain words with the cure.
#pragma once

#include "run/options.h"

#include <array>
#include <cstdint>
#include <string_view>

// The daemon's error line that says most: the first one that ends a start, or the last one.
struct daemon_error {
  std::array<char, 200> text; // without level, function and line number; empty = none
  bool is_fatal;
};

extern daemon_error DaemonError;

struct end_facts {
  network_mode network;
  int wait_status;                                        // of waitpid()
  std::array<interface_name, MOST_DOWNSTREAMS + 1> names; // that the daemon was started with, the upstream first
  std::array<std::uint32_t, MOST_DOWNSTREAMS + 1> indexes;
  std::size_t count;
  bool has_rights;          // CAP_NET_ADMIN and CAP_NET_RAW
  bool can_route_multicast; // the kernel
  const char *rivals;       // processes that may hold the routing socket; "" = none seen
};

using end_text = std::array<char, 320>;

// Forgets what an earlier daemon said.
void clear_daemon_error();

// From `DaemonError` and the facts.
void explain_end(const end_facts &facts, end_text &reason);

// How long to wait before the daemon is started again.
#pragma once

#include <cstdint>

struct pacing {
  int early_ends;             // in a row
  std::int64_t not_before_ms; // monotonic clock; 0 = at once
};

// The daemon, started at `started_ms`, has ended by itself. Waits 1, 2, 5, 10 and then 30 s after ends within the
// first 30 s of a life; an end after that begins anew. Returns the wait in seconds.
int pace_after_end(pacing &pace, std::int64_t started_ms, std::int64_t now_ms);

// The supervisor has ended it for a new start: at once, but not more than one start a second.
void pace_after_stop(pacing &pace, std::int64_t started_ms);

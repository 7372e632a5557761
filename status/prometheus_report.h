// The snapshot as metrics in Prometheus' text format. docs/man/tarnwick-status.8 describes them.
#pragma once

#include "status/snapshot.h"

// Streams beyond these are counted in tarnwick_stream_series_omitted, so that a LAN that keeps asking for new groups
// does not fill a database.
inline constexpr std::size_t MOST_STREAM_SERIES = 256;

void add_metrics(text &metrics, const snapshot &snapshot);

// Writes the file whole, under another name first. Returns false with errno; the old file then stays.
bool replace_file(const char *path, const text &content);

#include "status/prometheus_report.h"

#include "status/printable.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void begin_metric(text &metrics, const char *name, const char *type, const char *help) {
  add_text(metrics, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

void add_gauge(text &metrics, const char *name, const char *help, double value) {
  begin_metric(metrics, name, "gauge", help);
  add_text(metrics, "%s %.0f\n", name, value);
}

// Backslash and quote are escaped; line ends cannot be in there.
void add_label(text &metrics, const char *name, const char *value) {
  text shown;
  add_printable(shown, value, true);
  add_text(metrics, "%s=\"", name);
  for (const char *byte = text_of(shown); *byte != '\0'; ++byte) {
    add_text(metrics, "%s%c", *byte == '"' || *byte == '\\' ? "\\" : "", *byte);
  }
  add_bytes(metrics, "\"", 1);
  free_rows(shown);
}

// Interfaces that are gone have no names to tell them apart by.
bool is_shown(const interface_row &row) { return std::strcmp(row.counters.name.data(), GONE_INTERFACE) != 0; }

// `value_of` gives the number of a row.
template <typename value_getter>
void add_interface_counter(text &metrics, const snapshot &snapshot, const char *name, const char *help,
                           value_getter value_of) {
  begin_metric(metrics, name, "counter", help);
  for (const interface_row &row : all_rows(snapshot.interfaces)) {
    if (!is_shown(row)) {
      continue;
    }
    add_text(metrics, "%s{", name);
    add_label(metrics, "interface", row.counters.name.data());
    add_text(metrics, ",protocol=\"%s\",role=\"%s\"} %" PRIu64 "\n", row.counters.protocol.data(),
             row.is_upstream ? "upstream" : "downstream", static_cast<std::uint64_t>(value_of(row)));
  }
}

void add_interface_metrics(text &metrics, const snapshot &snapshot) {
  add_interface_counter(metrics, snapshot, "tarnwick_interface_queries_total", "Queries heard from other routers.",
                        [](const interface_row &row) { return static_cast<std::uint32_t>(row.counters.queries); });
  add_interface_counter(metrics, snapshot, "tarnwick_interface_joins_total", "Records that asked for a group.",
                        [](const interface_row &row) { return static_cast<std::uint32_t>(row.counters.joins); });
  add_interface_counter(metrics, snapshot, "tarnwick_interface_leaves_total", "Records that left a group.",
                        [](const interface_row &row) { return static_cast<std::uint32_t>(row.counters.leaves); });
  add_interface_counter(metrics, snapshot, "tarnwick_interface_timeouts_total", "Groups and sources that ran out.",
                        [](const interface_row &row) { return static_cast<std::uint32_t>(row.counters.timeouts); });
  add_interface_counter(metrics, snapshot, "tarnwick_interface_received_packets_total",
                        "Stream packets that arrived here and were forwarded.",
                        [](const interface_row &row) { return row.mif != nullptr ? row.mif->packets_in : 0; });
  add_interface_counter(metrics, snapshot, "tarnwick_interface_transmitted_packets_total",
                        "Stream packets that were forwarded to here.",
                        [](const interface_row &row) { return row.mif != nullptr ? row.mif->packets_out : 0; });
}

std::size_t stream_series(const snapshot &snapshot) {
  const std::span<stream_row> streams = all_rows(snapshot.streams);
  return static_cast<std::size_t>(
      std::count_if(streams.begin(), streams.end(), [](const stream_row &stream) { return stream.entry != nullptr; }));
}

// `interface` is the one from which the stream comes.
template <typename value_getter>
void add_stream_counter(text &metrics, const snapshot &snapshot, const char *name, const char *help,
                        value_getter value_of) {
  begin_metric(metrics, name, "counter", help);
  std::size_t left = MOST_STREAM_SERIES;
  for (const stream_row &stream : all_rows(snapshot.streams)) {
    if (stream.entry == nullptr || left == 0) {
      continue;
    }
    --left;
    const mif_row *mif = find_mif(*snapshot.mifs, stream.entry->parent);
    add_text(metrics, "%s{", name);
    add_label(metrics, "group", stream.entry->group.data());
    add_text(metrics, ",");
    add_label(metrics, "source", stream.entry->origin.data());
    add_text(metrics, ",");
    add_label(metrics, "interface", mif != nullptr ? mif->name.data() : "");
    add_text(metrics, "} %" PRIu64 "\n", value_of(*stream.entry));
  }
}

void add_stream_metrics(text &metrics, const snapshot &snapshot) {
  add_stream_counter(metrics, snapshot, "tarnwick_stream_packets_total", "Packets that the entry has forwarded.",
                     [](const cache_row &entry) { return entry.packets; });
  add_stream_counter(metrics, snapshot, "tarnwick_stream_bytes_total", "Bytes that the entry has forwarded.",
                     [](const cache_row &entry) { return entry.bytes; });
  add_stream_counter(metrics, snapshot, "tarnwick_stream_wrong_interface_packets_total",
                     "Packets that came from elsewhere than upstream.",
                     [](const cache_row &entry) { return entry.wrong_interface; });
}

bool write_all(int file, const text &content) {
  std::size_t done = 0;
  while (done < content.count) {
    const ssize_t written = write(file, content.first + done, content.count - done);
    if (written < 0 && errno != EINTR) {
      return false;
    }
    done += written > 0 ? static_cast<std::size_t>(written) : 0;
  }
  return true;
}

} // namespace

void add_metrics(text &metrics, const snapshot &snapshot) {
  const std::size_t series = stream_series(snapshot);
  add_gauge(metrics, "tarnwick_uptime_seconds", "Time since the daemon was started.",
            static_cast<double>(seconds_running(snapshot.daemon)));
  add_gauge(metrics, "tarnwick_groups", "Group records in use, one for each group on each interface.",
            static_cast<double>(snapshot.listeners.count));
  add_gauge(metrics, "tarnwick_stream_series_omitted", "Streams beyond those that are listed here.",
            static_cast<double>(series > MOST_STREAM_SERIES ? series - MOST_STREAM_SERIES : 0));
  add_interface_metrics(metrics, snapshot);
  add_stream_metrics(metrics, snapshot);
}

bool replace_file(const char *path, const text &content) {
  constexpr mode_t readable_by_all = 0644;
  text unfinished;
  add_text(unfinished, "%s.XXXXXX", path); // not *.prom: nobody collects it
  const int file = mkostemp(unfinished.first, O_CLOEXEC);
  bool is_done = file >= 0;
  if (is_done) {
    is_done = write_all(file, content) && fchmod(file, readable_by_all) == 0 && fsync(file) == 0;
    is_done = close(file) == 0 && is_done && std::rename(text_of(unfinished), path) == 0;
    const int reason = errno;
    if (!is_done) {
      unlink(text_of(unfinished));
    }
    errno = reason;
  }
  free_rows(unfinished);
  return is_done;
}

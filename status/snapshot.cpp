#include "status/snapshot.h"

#include "status/host_names.h"

#include "status/clock.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>

namespace {

constexpr char any_address[] = "::";
constexpr double bits_per_byte = 8.0;

// Of groups; :: stands for every group and comes last.
int compare_addresses(const group_text &left, const group_text &right) {
  in6_addr left_bytes{};
  in6_addr right_bytes{};
  if (inet_pton(AF_INET6, left.data(), &left_bytes) != 1 || inet_pton(AF_INET6, right.data(), &right_bytes) != 1) {
    return std::strcmp(left.data(), right.data()); // IPv4 groups
  }
  const bool is_left_any = std::memcmp(&left_bytes, &in6addr_any, sizeof(left_bytes)) == 0;
  const bool is_right_any = std::memcmp(&right_bytes, &in6addr_any, sizeof(right_bytes)) == 0;
  if (is_left_any != is_right_any) {
    return is_left_any ? 1 : -1;
  }
  return std::memcmp(&left_bytes, &right_bytes, sizeof(left_bytes));
}

template <typename short_text> bool is_same(const short_text &left, const short_text &right) {
  return std::strcmp(left.data(), right.data()) == 0;
}

bool is_any(const group_text &address) { return std::strcmp(address.data(), any_address) == 0; }

bool is_same_entry(const cache_row &left, const cache_row &right) {
  return is_same(left.group, right.group) && is_same(left.origin, right.origin);
}

bool has_listener(const daemon_state &state, const group_text &group) {
  const std::span<group_line> lines = all_rows(state.groups);
  return std::any_of(lines.begin(), lines.end(), [&](const group_line &line) { return is_same(line.group, group); });
}

stream_kind kind_of(const daemon_state &state, const cache_row &entry) {
  if (is_any(entry.group) && is_any(entry.origin)) {
    return stream_kind::static_tree;
  }
  if (entry.parent < 0) {
    return stream_kind::unresolved;
  }
  return has_listener(state, entry.group) ? stream_kind::wanted : stream_kind::left_over;
}

double seconds_between(const traffic_sample &before, const traffic_sample &now) {
  constexpr double milliseconds_per_second = 1000.0;
  return static_cast<double>(now.milliseconds - before.milliseconds) / milliseconds_per_second;
}

// A counter that went down belongs to an entry that was made anew: it counts from zero.
double per_second(std::uint64_t before, std::uint64_t now, double seconds) {
  const std::uint64_t gained = now >= before ? now - before : now;
  return seconds > 0 ? static_cast<double>(gained) / seconds : 0.0;
}

void set_rates(stream_row &stream, const traffic_sample &before, const traffic_sample &now) {
  for (const cache_row &earlier : all_rows(before.entries)) {
    if (is_same_entry(earlier, *stream.entry)) {
      const double seconds = seconds_between(before, now);
      stream.bits_per_second = per_second(earlier.bytes, stream.entry->bytes, seconds) * bits_per_byte;
      stream.packets_per_second = per_second(earlier.packets, stream.entry->packets, seconds);
      return;
    }
  }
}

const mif_row *mif_of(const traffic_sample &now, const interface_text &name) {
  for (const mif_row &mif : all_rows(now.mifs)) {
    if (is_same(mif.name, name)) {
      return &mif;
    }
  }
  return nullptr;
}

bool is_made_anew(const traffic_sample &now, const mif_row *mif) {
  const device_row *device = mif != nullptr ? find_device(now.devices, mif->name) : nullptr;
  return device != nullptr && device->index != 0 && device->index != mif->number;
}

heard_queries &heard_on(snapshot &joined, const interface_counters &counters) {
  for (heard_queries &heard : all_rows(joined.heard)) {
    if (is_same(heard.interface, counters.name) && is_same(heard.protocol, counters.protocol)) {
      return heard;
    }
  }
  return add_row(joined.heard, heard_queries{counters.name, counters.protocol, counters.queries, -1});
}

void watch_querier(snapshot &joined, interface_row &row, const traffic_sample &now) {
  constexpr std::int64_t milliseconds_per_second = 1000;
  constexpr long missed_seconds = 125 + 10; // query interval and response interval, RFC 3810 sections 9.2 and 9.3
  constexpr long taken_back_seconds = 300;  // MLD_OTHER_QUERIER_INTERVAL_S of mld/mld_timing.h
  heard_queries &heard = heard_on(joined, row.counters);
  if (heard.count != row.counters.queries) {
    heard.count = row.counters.queries;
    heard.heard_at = now.milliseconds;
  }
  if (heard.heard_at < 0) {
    return;
  }
  row.silent_seconds = static_cast<long>((now.milliseconds - heard.heard_at) / milliseconds_per_second);
  if (row.silent_seconds <= missed_seconds) {
    row.querier = other_querier::asks;
  } else if (row.silent_seconds <= taken_back_seconds) {
    row.querier = other_querier::silent;
  }
}

// The daemon lists its upstream interface last.
void join_interfaces(snapshot &joined, const daemon_state &state, const traffic_sample &now) {
  for (const interface_counters &counters : all_rows(state.interfaces)) {
    const mif_row *mif = mif_of(now, counters.name);
    watch_querier(joined, add_row(joined.interfaces, interface_row{counters, false, mif, is_made_anew(now, mif)}), now);
  }
  if (joined.interfaces.count > 0) {
    joined.interfaces.first[joined.interfaces.count - 1].is_upstream = true;
  }
  std::reverse(joined.interfaces.first, joined.interfaces.first + joined.interfaces.count);
}

stream_total &total_of(snapshot &joined, const cache_row &entry) {
  for (stream_total &total : all_rows(joined.totals)) {
    if (is_same(total.group, entry.group) && is_same(total.origin, entry.origin)) {
      return total;
    }
  }
  if (joined.totals.count == MOST_TOTALS) {
    clear_rows(joined.totals);
  }
  return add_row(joined.totals, stream_total{entry.group, entry.origin, 0, 0, 0, 0});
}

// A number that jumps back while one watches would look like a stream that has started again.
void add_up(snapshot &joined, stream_row &stream) {
  const cache_row &entry = *stream.entry;
  stream_total &total = total_of(joined, entry);
  if (entry.packets < total.packets) {
    total.carried_packets += total.packets;
    total.carried_bytes += total.bytes;
  }
  total.packets = entry.packets;
  total.bytes = entry.bytes;
  stream.packets = total.carried_packets + entry.packets;
  stream.bytes = total.carried_bytes + entry.bytes;
}

double forwarded_per_second(const snapshot &joined, std::int32_t mif) {
  double packets = 0;
  for (const stream_row &stream : all_rows(joined.streams)) {
    if (stream.entry != nullptr && (stream.entry->outputs >> mif & 1) != 0) {
      packets += stream.packets_per_second;
    }
  }
  return packets;
}

// Whether an interface sends less than half of what the kernel forwards to it.
bool is_silent(const snapshot &joined, const traffic_sample &before, const traffic_sample &now, const mif_row &mif) {
  constexpr double least_packets_per_second = 5.0; // fewer prove nothing: the tables are read one after the other
  constexpr double half = 0.5;
  const device_row *earlier = find_device(before.devices, mif.name);
  const device_row *later = find_device(now.devices, mif.name);
  const double forwarded = forwarded_per_second(joined, mif.number);
  return earlier != nullptr && later != nullptr && forwarded >= least_packets_per_second &&
         per_second(earlier->packets_sent, later->packets_sent, seconds_between(before, now)) < forwarded * half;
}

void find_silent_outputs(snapshot &joined, const traffic_sample &before, const traffic_sample &now) {
  std::uint32_t silent = 0;
  for (const mif_row &mif : all_rows(now.mifs)) {
    constexpr std::int32_t mif_numbers = 32; // MAXMIFS of linux/mroute6.h
    if (mif.number >= 0 && mif.number < mif_numbers && is_silent(joined, before, now, mif)) {
      silent |= std::uint32_t{1} << mif.number;
    }
  }
  for (stream_row &stream : all_rows(joined.streams)) {
    stream.silent_outputs = stream.entry != nullptr ? stream.entry->outputs & silent : 0;
  }
}

void add_group(snapshot &joined, const group_text &group) {
  const std::span<group_row> known = all_rows(joined.groups);
  if (std::none_of(known.begin(), known.end(), [&](const group_row &row) { return is_same(row.group, group); })) {
    add_row(joined.groups, group_row{group, 0, 0, 0, 0});
  }
}

void join_groups(snapshot &joined, const daemon_state &state, const traffic_sample &now) {
  for (const group_line &line : all_rows(state.groups)) {
    add_group(joined, line.group);
  }
  for (const cache_row &entry : all_rows(now.entries)) {
    add_group(joined, entry.group);
  }
  std::sort(
      joined.groups.first, joined.groups.first + joined.groups.count,
      [](const group_row &left, const group_row &right) { return compare_addresses(left.group, right.group) < 0; });
}

void join_listeners(snapshot &joined, const daemon_state &state, group_row &group) {
  group.first_listener = joined.listeners.count;
  for (const group_line &line : all_rows(state.groups)) {
    if (is_same(line.group, group.group)) {
      add_row(joined.listeners, line);
    }
  }
  group.listener_count = joined.listeners.count - group.first_listener;
}

void join_streams(snapshot &joined, const daemon_state &state, const traffic_sample &before, const traffic_sample &now,
                  group_row &group) {
  group.first_stream = joined.streams.count;
  for (const cache_row &entry : all_rows(now.entries)) {
    if (is_same(entry.group, group.group)) {
      stream_row &stream = add_row(joined.streams, stream_row{kind_of(state, entry), &entry, 0, 0});
      set_rates(stream, before, now);
      add_up(joined, stream);
      joined.fastest_bits_per_second = std::max(joined.fastest_bits_per_second, stream.bits_per_second);
    }
  }
  if (joined.streams.count == group.first_stream) {
    add_row(joined.streams, stream_row{stream_kind::no_entry, nullptr, 0, 0});
  }
  group.stream_count = joined.streams.count - group.first_stream;
}

bool read_table(text &table, pid_t daemon, const char *name) {
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/net/%s", static_cast<int>(daemon), name);
  return read_file(table, path.data());
}

} // namespace

bool read_traffic(traffic_sample &sample, pid_t daemon) {
  clear_rows(sample.mifs);
  clear_rows(sample.entries);
  text table;
  const bool has_mifs = read_table(table, daemon, "ip6_mr_vif");
  if (has_mifs) {
    parse_mif_table(sample.mifs, text_of(table));
    add_host_names(sample.mifs, daemon);
  }
  const bool has_entries = has_mifs && read_table(table, daemon, "ip6_mr_cache");
  sample.milliseconds = monotonic_milliseconds();
  clear_rows(sample.devices);
  text devices;
  if (has_entries && read_table(devices, daemon, "dev")) {
    parse_device_table(sample.devices, text_of(devices));
  }
  if (has_entries && read_table(devices, daemon, "if_inet6")) {
    parse_indexes(sample.devices, text_of(devices));
  }
  free_rows(devices);
  if (has_entries) {
    parse_cache_table(sample.entries, text_of(table));
  }
  free_rows(table);
  return has_entries;
}

void join_snapshot(snapshot &joined, const process_facts &daemon, const daemon_state &state,
                   const traffic_sample &before, const traffic_sample &now) {
  if (joined.daemon.pid != daemon.pid || joined.daemon.start_ticks != daemon.start_ticks) {
    clear_rows(joined.totals);
    clear_rows(joined.heard);
  }
  joined.daemon = daemon;
  clear_rows(joined.interfaces);
  clear_rows(joined.listeners);
  clear_rows(joined.streams);
  clear_rows(joined.groups);
  joined.mifs = &now.mifs;
  joined.has_rates = &before != &now;
  joined.sample_seconds = seconds_between(before, now);
  joined.fastest_bits_per_second = 0;
  join_interfaces(joined, state, now);
  join_groups(joined, state, now);
  for (group_row &group : all_rows(joined.groups)) {
    join_listeners(joined, state, group);
    join_streams(joined, state, before, now, group);
  }
  find_silent_outputs(joined, before, now);
}

void free_snapshot(snapshot &joined) {
  free_rows(joined.interfaces);
  free_rows(joined.listeners);
  free_rows(joined.streams);
  free_rows(joined.groups);
  free_rows(joined.totals);
  free_rows(joined.heard);
}

void find_companion(snapshot &joined) {
  joined.companion = 0;
  rows_of<process_facts> companions;
  list_processes(companions, COMPANION_NAME);
  for (const process_facts &companion : all_rows(companions)) {
    if (is_trusted(companion) && companion.network == joined.daemon.network) {
      joined.companion = companion.pid;
    }
  }
  free_rows(companions);
}

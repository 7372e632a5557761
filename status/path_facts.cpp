#include "status/path_facts.h"

#include <ctime>
#include <unistd.h>

namespace {

bool read_table(text &table, const char *name) {
  text path;
  add_text(path, "/proc/self/net/%s", name);
  const bool is_read = read_file(table, text_of(path));
  free_rows(path);
  return is_read;
}

void read_memberships(path_facts &facts) {
  text table;
  clear_rows(facts.memberships);
  clear_rows(facts.group_sources);
  if (read_table(table, "igmp6")) {
    parse_memberships(facts.memberships, text_of(table));
  }
  if (read_table(table, "mcfilter6")) {
    parse_group_sources(facts.group_sources, text_of(table));
  }
  free_rows(table);
}

// On every multicast interface, and on the ports of those that are bridges.
void begin_captures(path_facts &facts, const check_subject &subject, const traffic_sample &sample) {
  for (const mif_row &mif : all_rows(sample.mifs)) {
    const link_row *link = find_link(facts.network, mif.name.data());
    if (link == nullptr) {
      continue;
    }
    begin_capture(facts.captures, link->index, subject.group, subject.source);
    for (const link_row &port : all_rows(facts.network.links)) {
      if (link->is_bridge && port.bridge == link->index) {
        begin_capture(facts.captures, port.index, subject.group, subject.source);
      }
    }
  }
}

double seconds_of(clockid_t clock) {
  constexpr double nanoseconds_per_second = 1e9;
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / nanoseconds_per_second;
}

// Processes are dated by the clock that runs on while the machine sleeps, addresses by the one that does not.
double start_of(const process_facts &process) {
  const auto ticks_per_second = static_cast<double>(sysconf(_SC_CLK_TCK));
  const double slept = seconds_of(CLOCK_BOOTTIME) - seconds_of(CLOCK_MONOTONIC);
  return static_cast<double>(process.start_ticks) / ticks_per_second - slept;
}

} // namespace

void begin_path_facts(path_facts &facts, const check_subject &subject, const traffic_sample &sample) {
  read_network_tables(facts.network);
  clear_rows(facts.captures);
  if (subject.group[0] != '\0') {
    begin_captures(facts, subject, sample);
  }
}

void end_path_facts(path_facts &facts, const check_subject &subject) {
  end_captures(facts.captures);
  read_memberships(facts);
  read_firewall_rules(facts.rules);
  if (subject.has_daemon) {
    read_process_room(facts.room, subject.daemon.pid);
    read_served_names(facts.served, subject.daemon.pid);
    read_setting(facts.lan_mac, subject.daemon.pid, "et0macaddr");
    facts.daemon_started_at_seconds = start_of(subject.daemon);
  }
}

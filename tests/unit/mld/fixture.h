// Words for tests of reports: what the daemon does for one, and what it remembers afterwards, as lines of text.
#pragma once

#include "tests/support/proxy_fixture.h"

#include <initializer_list>
#include <set>

namespace scripted {

// As mld_fixture; gives back the host records that the daemon loses on purpose.
struct mld_report_fixture : mld_fixture {
  mld_report_fixture();
  ~mld_report_fixture() override;

  // Leaves so many records in the host pool, as many deletions would.
  void given_hosts_left(int records_left);

  void given_host(mld_interface *intr, const std::string &group, const std::string &host, const std::string &source);

  // Ticks without general queries in between.
  void when_ticked_quietly(int ticks = 1);

  // The interface's groups, newest first, each with its slots below it:
  //   "ff0e::1: state 1, timer 350, retransmit 0, queries 0"
  //   "  2001:db8::1: timer 360, forward 1"
  void then_groups(const mld_interface *intr, const lines &expected) const;

  // The interface's host records, oldest first: "ff0e::1 fe80::a 2001:db8::1" is group, host and source.
  void then_hosts(const mld_interface *intr, const lines &expected) const;

  std::set<void *> host_records; // all that there are, wherever they stand
};

lines together(std::initializer_list<lines> parts);

std::string group_line(const std::string &group, int state = 1, int timer = 350, int retransmit = 0, int queries = 0);
std::string slot_line(const std::string &source, int timer = 360, int forward = 1);

// What a message with known arrival interface leaves in the transcript before its handler runs.
lines received(const std::string &sender, int ifindex, const std::string &type_line);

// The same for an MLDv2 report with so many records.
lines received_report(const std::string &sender, int ifindex, int records);

// Trace of one record before its type is handled.
lines record_traced(const std::string &group, int sources, const std::string &type_name);

lines host_looked_up(const std::string &host, const std::string &source);
lines host_recorded(const std::string &group, const std::string &host, const std::string &source);

// A join that nothing refuses, forwarded to the named interfaces (br0, lan1).
lines all_sources_joined(const std::string &group, const lines &interfaces = {"br0"});
lines source_joined(const std::string &group, const std::string &source, int block = 0,
                    const lines &interfaces = {"br0"});

// The end of a group that no other interface has.
lines left_upstream(const std::string &group, const lines &sources = {});

// "setsockopt(wan0, MCAST_LEAVE_SOURCE_GROUP) group=... source=... ifindex=2", by the option's name.
std::string source_request(const std::string &option, const std::string &group, const std::string &source);

// "setsockopt(mld, MRT6_ADD_MFC) origin=... group=... parent=2 outputs={...}", by the option's name.
std::string entry_request(const std::string &option, const std::string &origin, const std::string &group,
                          const std::string &outputs);

} // namespace scripted

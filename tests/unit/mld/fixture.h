// Fixtures for the MLD side, messages as hosts send them, and, as lines of text, what the daemon does for a message and
// keeps afterwards.
#pragma once

#include "mld/mld_record.h"
#include "mld/mld_router.h"
#include "tests/support/proxy_fixture.h"

#include <initializer_list>
#include <set>

namespace scripted {

// A running MLD proxy without start-up: wan0 (index 2) upstream, br0 (index 3) and lan1 (index 4) downstream, pools
// full, all sockets numbered. Interface list order is that of a start with "-d br0,lan1": lan1, br0, wan0.
struct mld_fixture : proxy_fixture {
  mld_fixture();
  ~mld_fixture() override;

  mld_interface *wan0;
  mld_interface *br0;
  mld_interface *lan1;

  // Makes a group as reports make it, without any request: state 1, timer 350, on the interface's list.
  mld_group *given_group(mld_interface *intr, const std::string &group, const lines &sources = {});

  // Queues that many queries for the group and sets state 2.
  void given_checking(mld_group *group, int queries, int retransmit_timer);

  // Takes that many records out of a pool, so that it is soon empty. They come back at the end of the test.
  void given_pool_left(list *pool, int records_left);

  // One message through the socket; the handlers run as in the daemon.
  void when_received(const std::vector<std::uint8_t> &bytes, const std::string &sender, int ifindex);

  void when_ticked(int ticks = 1);

  // Pools and lists together hold every record but the deleted hosts, of which none comes back.
  lines broken_invariants() override;

  int hosts_deleted = 0;       // records that left the host pool for good
  bool has_whole_pools = true; // false: records were taken away on purpose
};

// Messages as hosts send them, from the type byte on.
struct group_record {
  int type;
  std::string group;
  lines sources = {};
};

std::vector<std::uint8_t> mldv1_message(int type, const std::string &group);
std::vector<std::uint8_t> mldv2_report(const std::vector<group_record> &records);

// One record with its memory, for direct calls of a record's handler.
struct owned_record {
  std::vector<std::uint8_t> bytes;
  mld_record view() { return mld_record{bytes}; }
};
owned_record record(int type, const std::string &group, const lines &sources = {});

// As mld_fixture; gives back the host records that the daemon loses on purpose.
struct mld_report_fixture : mld_fixture {
  mld_report_fixture();
  ~mld_report_fixture() override;

  // Leaves only that many records in the host pool, as after many deletions.
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

// One line of `then_groups`. By default the group is as a report leaves it.
struct group_row {
  std::string group;
  int state = MLD_GROUP_MEMBERS_PRESENT;
  int timer = 350;    // seconds
  int retransmit = 0; // seconds
  int queries = 0;    // pending
};
std::string group_line(const group_row &row);
std::string group_line(const char *group); // with all defaults
std::string slot_line(const std::string &source, int timer = 360, int forward = 1);

// What a message with known arrival interface leaves in the transcript before its handler runs.
lines received(const std::string &sender, int ifindex, const std::string &type_line);

// The same for an MLDv2 report with that many records.
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

// Fixtures: a fresh proxy for each test, and the words in which tests are written.
#pragma once

#include "mld/mld_record.h"
#include "mld/mld_router.h"
#include "scripted_kernel.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace scripted {

ipv6_address address(const std::string &text);

// Eight groups of four digits, as in log lines.
std::string log_text(const std::string &address);

using lines = std::vector<std::string>;

// Resets every global of the daemon and the scripted kernel. After each `when` it checks what must always hold, and at
// the end that no request stayed unasserted.
struct proxy_fixture : testing::Test {
  proxy_fixture();
  ~proxy_fixture() override;

  void TearDown() override;

  // Runs daemon code under the script, then checks the invariants.
  void when(const std::function<void()> &daemon_code);

  // The whole transcript since the last assertion, requests and log lines in order.
  void then(const lines &expected);

  // Requests alone, in order; log lines are passed over.
  void then_requests(const lines &expected);

  // These lines stand in the transcript in this order, with anything between them. Ends the assertion of requests, too:
  // use it where `then` would bury what matters.
  void then_in_order(const lines &expected);

  // Log lines alone, in order.
  void then_log(const lines &expected);

  // For set-up steps whose requests another test asserts.
  void then_anything();

  void given_failure(const std::string &request, int error, int times = 1);

  // Makes /tmp sticky, as on most systems; it is not unless a test asks for it.
  static void given_sticky_folder();

  // Gives a thing to another user: a link itself, not what it points to.
  static void given_of_nobody(const std::string &path);
};

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

  // Queues so many queries for the group and sets state 2.
  void given_checking(mld_group *group, int queries, int retransmit_timer);

  // Takes so many records out of a pool, so that it runs dry early. They come back at the end of the test.
  void given_pool_left(list *pool, int records_left);

  // One message through the socket; the handlers run as in the daemon.
  void when_received(const std::vector<std::uint8_t> &bytes, const std::string &sender, int ifindex);

  void when_ticked(int ticks = 1);

  int hosts_deleted() const;
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

int length(const list &of);
std::string text(const ipv6_address &address);

// What must hold whatever happened: no state 0 on a group list, no record on two lists, no more slots than there are,
// pools and lists together hold every record but the deleted hosts. Returns complaints, empty if all is well.
lines broken_mld_invariants();

} // namespace scripted

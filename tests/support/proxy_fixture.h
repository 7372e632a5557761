// The base of all fixtures: a fresh daemon for each test, and the functions that tests are written in.
#pragma once

#include "core/list.h"
#include "core/list_index.h"
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

  // What must hold at any time: no group in state 0 on an interface, no record on two lists, no more slots than
  // there are. Fixtures that know the size of their pools add to it. Returns complaints, empty if all is well.
  virtual lines broken_invariants();

  // The whole transcript since the last assertion, requests and log lines in order.
  void then(const lines &expected);

  // Only the requests, in order; log lines are skipped.
  void then_requests(const lines &expected);

  // The transcript has these lines in this order, with anything between them. Ends the assertion of requests, too:
  // use it where `then` would bury what matters.
  void then_in_order(const lines &expected);

  // Only the log lines, in order.
  void then_log(const lines &expected);

  // For set-up steps whose requests another test asserts.
  void then_anything();

  void given_failure(const std::string &request, int error, int times = 1);

  // Makes /tmp sticky, as on most systems; it is not unless a test asks for it.
  static void given_sticky_folder();

  // Gives a thing to another user: a link itself, not what it points to.
  static void given_of_nobody(const std::string &path);
};

int length(const list &of);
int length(const indexed_list &of);
std::string text(const ipv6_address &address);

} // namespace scripted

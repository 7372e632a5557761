#include "proxy_fixture.h"

#include "core/memory.h"
#include "core/options.h"
#include "core/settings.h"
#include "core/signals.h"
#include "invariants.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace scripted {

namespace {

void reset_daemon() {
  ProxyMode = PROXY_MODE_6TO6;
  ProxyDebugLevel = 0;
  ProxyIsADaemon = 0;
  UpstreamInterfacesName = nullptr;
  DownstreamInterfacesName = {};
  DownstreamInterfacesNum = 0;
  IgnoreInterfacesName = {};
  IgnoreInterfacesNum = 0;
  ForceNonQuerier = 0;
  ImmediateLeave = 0;
  LanMac = {};
  MldPrefix = {};
  InterfaceNameCounter = 0;
  timer_pipe = {-1, -1};
  ProxyIsRunning = 0;
  StateDumpIsWanted = 0;
  malloc_counter = 0;
  free_counter = 0;
  malloced_size = 0;
  MyInAddr = {};
  MldRouter = mld_router{};
  MldGroupIndex = list_index{};
  MldHostIndex = list_index{};
  MldBlock = 0;
  MldStartUpQueryIsSend = 0;
  mld_tmp_origin = {};
  optind = 0; // makes getopt start afresh
}

template <typename chooser> lines selected(const lines &all, chooser is_wanted) {
  lines kept;
  std::copy_if(all.begin(), all.end(), std::back_inserter(kept), is_wanted);
  return kept;
}

std::string joined(const lines &all) {
  std::string text;
  for (const std::string &line : all) {
    text += "  " + line + "\n";
  }
  return text;
}

} // namespace

ipv6_address address(const std::string &text) {
  ipv6_address parsed{};
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), parsed.data()), 1) << text;
  return parsed;
}

std::string log_text(const std::string &text) { return ADDRESS_TEXT(address(text)); }

std::string text(const ipv6_address &address) {
  char buffer[INET6_ADDRSTRLEN] = "";
  inet_ntop(AF_INET6, address.data(), buffer, sizeof(buffer));
  return buffer;
}

int length(const indexed_list &of) { return length(of.records); }

int length(const list &of) {
  int count = 0;
  for (const list_node *node = list_get_head(&of); node != nullptr; node = list_get_next(node)) {
    if (++count > 100000) {
      ADD_FAILURE() << "endless list";
      break;
    }
  }
  return count;
}

proxy_fixture::proxy_fixture() {
  reset();
  reset_daemon();
  constexpr mode_t private_folder = 0700;
  chmod(Kernel.directory.c_str(), private_folder);
}

proxy_fixture::~proxy_fixture() { reset_daemon(); }

void proxy_fixture::TearDown() {
  Kernel.on_request = nullptr; // it may see what lived in the test that has ended
  const lines forgotten = selected(take_transcript(), is_request);
  EXPECT_TRUE(forgotten.empty()) << "requests that nobody expected:\n" << joined(forgotten);
}

void proxy_fixture::when(const std::function<void()> &daemon_code) {
  run(daemon_code);
  const lines complaints = broken_invariants();
  EXPECT_TRUE(complaints.empty()) << joined(complaints);
}

lines proxy_fixture::broken_invariants() {
  record_count count;
  const std::string complaint = check_mld_records(count);
  return complaint.empty() ? lines{} : lines{complaint};
}

void proxy_fixture::then(const lines &expected) {
  const lines happened = take_transcript();
  EXPECT_EQ(happened, expected) << "happened:\n" << joined(happened);
}

void proxy_fixture::then_requests(const lines &expected) {
  const lines happened = selected(take_transcript(), is_request);
  EXPECT_EQ(happened, expected) << "happened:\n" << joined(happened);
}

void proxy_fixture::then_log(const lines &expected) {
  const lines happened = selected(take_transcript(), [](const std::string &line) { return !is_request(line); });
  EXPECT_EQ(happened, expected) << "happened:\n" << joined(happened);
}

void proxy_fixture::then_in_order(const lines &expected) {
  const lines happened = take_transcript();
  auto from = happened.begin();
  for (const std::string &line : expected) {
    from = std::find(from, happened.end(), line);
    if (from == happened.end()) {
      ADD_FAILURE() << "missing, or out of order: " << line << "\nhappened:\n" << joined(happened);
      return;
    }
    ++from;
  }
}

void proxy_fixture::then_anything() { take_transcript(); }

void proxy_fixture::given_failure(const std::string &request, int error, int times) {
  Kernel.failures.push_back({request, error, times});
}

void proxy_fixture::given_sticky_folder() {
  constexpr mode_t open_to_all = 0777;
  ASSERT_EQ(chmod(Kernel.directory.c_str(), open_to_all | S_ISVTX), 0);
}

void proxy_fixture::given_of_nobody(const std::string &path) {
  constexpr uid_t nobody = 65534;
  ASSERT_EQ(lchown(path.c_str(), nobody, nobody), 0);
}

} // namespace scripted

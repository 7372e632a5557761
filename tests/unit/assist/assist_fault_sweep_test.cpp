// Start, messages, entries, time and loss of interfaces: each of the companion's requests fails once alone, and once
// together with all that follow. Afterwards the companion must work as if nothing had happened.
#include "fixture.h"

#include <cerrno>
#include <functional>

namespace {

// Not part of the test that sweeps, so that every run has a companion of its own.
struct fresh_companion : watch_fixture {
  void TestBody() override {}
  using watch_fixture::given_interfaces;
  using watch_fixture::given_quiet_companion;
  using watch_fixture::hear;
  using watch_fixture::requests;
  using watch_fixture::said;
  using watch_fixture::SetUp;
  using watch_fixture::start;
  using watch_fixture::TearDown;
  using watch_fixture::tell;
  using watch_fixture::wait;
};

const std::string group = "ff3e::1:2:3";
const std::string source = "2001:db8:2::10";
constexpr std::int64_t longest_retry_ms = 125000;

// What Linux answers when it refuses one of the companion's requests.
const std::vector<int> errors = {EPERM, EINVAL, ENOMEM, ENOBUFS, EADDRNOTAVAIL, ENODEV, ENOENT, EMFILE, ENETDOWN};

struct sweep_scenario {
  std::string name;
  bool starts_itself; // else the companion works already
  std::function<void(fresh_companion &)> play;
};

mld_bytes leave() { return report_bytes({record_bytes(MLD2_BLOCK_OLD_SOURCES, group, {source})}); }

byte_vector entry(int type) {
  return entry_message(type, 3, {4, 5}, to_in6_addr(address(source)), to_in6_addr(address(group)));
}

const std::vector<sweep_scenario> scenarios = {
    {"start", true,
     [](fresh_companion &companion) {
       companion.start();
       companion.wait(1000);
     }},
    {"leave", false,
     [](fresh_companion &companion) {
       companion.hear(leave());
       companion.wait(1000);
     }},
    {"end", false,
     [](fresh_companion &companion) {
       companion.tell(entry(RTM_DELROUTE));
       companion.wait(3000);
       companion.tell(entry(RTM_NEWROUTE));
     }},
    {"general queries", false, [](fresh_companion &companion) { companion.wait(300000); }},
    {"interface that goes and comes", false,
     [](fresh_companion &companion) {
       companion.tell(link_message(RTM_DELLINK, 4, "br0"));
       companion.tell(link_message(RTM_NEWLINK, 4, "br0"));
       companion.wait(1000);
     }},
    {"daemon that ends and comes", false,
     [](fresh_companion &companion) {
       companion.tell(netconf_message(3, 0));
       companion.tell(netconf_message(3, 1));
       companion.tell(entry_message(RTM_DELROUTE, 3, {3}));
       companion.wait(1000);
     }},
    {"stop", false, [](fresh_companion &) { stop_watch(); }}};

// How many requests the scenario made. Request number `failing`, counted from 1, fails; 0 = none does.
int play(const sweep_scenario &scenario, int failing, int reason, bool fails_rest) {
  fresh_companion companion;
  companion.SetUp();
  companion.given_interfaces(1);
  Kernel.entries = {source + " " + group};
  if (!scenario.starts_itself) {
    companion.given_quiet_companion();
  }
  Kernel.failures = {Kernel.calls + failing, reason, fails_rest, failing != 0};
  const int before = Kernel.calls;
  scenario.play(companion);
  const int made = Kernel.calls - before;
  Kernel.failures = {};
  // Looks at everything again, and lets every retry finish.
  companion.given_interfaces(1);
  look_at_everything();
  companion.wait(2 * longest_retry_ms);
  companion.requests();
  companion.said();
  if (scenario.name != "stop") {
    companion.wait(longest_retry_ms);
    EXPECT_EQ(companion.requests().size(), 2U) << scenario.name << ", request " << failing << ", errno " << reason;
    companion.hear(leave());
    companion.wait(600);
    const lines asked = companion.requests();
    EXPECT_NE(std::find(asked.begin(), asked.end(), query_for(group)), asked.end())
        << scenario.name << ", request " << failing << ", errno " << reason;
  }
  companion.said();
  stop_watch();
  const lines taken_back = companion.requests();
  const lines expected = scenario.name == "stop" ? lines{} : lines{DELETE_ENTRY, leave_of(4), leave_of(5)};
  for (const std::string &request : expected) {
    EXPECT_NE(std::find(taken_back.begin(), taken_back.end(), request), taken_back.end()) << request;
  }
  companion.said();
  Kernel.now_ms += longest_retry_ms;
  take_due_retry(); // is kept beyond the companion
  companion.TearDown();
  return made;
}

} // namespace

TEST(assist_fault_sweep, every_request_may_fail) {
  int failures = 0;
  for (const sweep_scenario &scenario : scenarios) {
    const int requests = play(scenario, 0, 0, false);
    EXPECT_GT(requests, 0) << scenario.name;
    for (int failing = 1; failing <= requests; ++failing) {
      for (const int reason : errors) {
        play(scenario, failing, reason, false);
        play(scenario, failing, reason, true);
        failures += 2;
      }
    }
  }
  std::printf("%zu scenarios, %d failures injected\n", scenarios.size(), failures);
}

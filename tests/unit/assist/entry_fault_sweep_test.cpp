// What the companion does with forwarding entries, every remedy on, each with each of its requests failing: alone, and
// with all that come after it. Afterwards it must work as if nothing had been.
#include "entry_words.h"
#include "fixture.h"

#include "assist/deadline.h"
#include "assist/group_table.h"
#include "assist/group_watch.h"

#include <cerrno>
#include <filesystem>
#include <functional>

namespace {

// Stands outside the test that sweeps, so that every play has a companion of its own.
struct fresh_companion : watch_fixture {
  void TestBody() override {}
  using watch_fixture::given_interfaces;
  using watch_fixture::hear;
  using watch_fixture::requests;
  using watch_fixture::said;
  using watch_fixture::SetUp;
  using watch_fixture::start;
  using watch_fixture::TearDown;
  using watch_fixture::tell;
};

constexpr std::int64_t silence_ms = 360'000; // longer than any listener that is not heard again
constexpr int most_turns_at_once = 4;        // of the loop, without time passing

// What Linux answers when it refuses one of the companion's requests.
const std::vector<int> errors = {EPERM, EINVAL, ENOMEM, ENOBUFS, EADDRNOTAVAIL, EADDRINUSE, ENODEV, ENOENT, EMFILE};

struct sweep_scenario {
  std::string name;
  std::function<void(fresh_companion &)> prepare; // before the failure is armed
  std::function<void(fresh_companion &)> play;
};

std::size_t open_descriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

// Lets the loop turn for a while.
void pass(std::int64_t ms) {
  const std::int64_t end_ms = Kernel.now_ms + ms;
  int turns_at_once = 0;
  for (int wait_ms = ms_until_next_deadline(); wait_ms >= 0 && Kernel.now_ms + wait_ms <= end_ms;
       wait_ms = ms_until_next_deadline()) {
    turns_at_once = wait_ms == 0 ? turns_at_once + 1 : 0;
    ASSERT_LT(turns_at_once, most_turns_at_once) << "the loop turns in vain";
    Kernel.now_ms += wait_ms;
    handle_deadlines();
  }
  Kernel.now_ms = end_ms;
}

void report(mld_record_type kind, const std::vector<std::string> &sources, unsigned index) {
  fresh_companion::hear(report_bytes({record_bytes(kind, GROUP, sources)}), index);
}

void nothing(fresh_companion &) {}

void given_any_source(fresh_companion &companion) { companion.tell(any_source({BR0})); }
void given_source(fresh_companion &companion) { companion.tell(source({BR0})); }

void given_both(fresh_companion &companion) {
  given_any_source(companion);
  companion.tell(source({LAN1}));
}

const std::vector<sweep_scenario> scenarios = {
    {"an any-source entry", nothing, given_any_source},
    {"a refresh", given_any_source,
     [](fresh_companion &companion) { companion.tell(deleted_shield() + any_source({BR0})); }},
    {"a group that ends", given_any_source,
     [](fresh_companion &companion) {
       companion.tell(deleted_shield());
       pass(3000);
       companion.tell(entry_of(RTM_DELROUTE, WAN, {BR0}, "::"));
     }},
    {"an entry written over its shield", given_any_source,
     [](fresh_companion &companion) {
       companion.tell(any_source({BR0, LAN1}));
     }},
    {"a second LAN", given_source,
     [](fresh_companion &companion) {
       report(MLD2_ALLOW_NEW_SOURCES, {SOURCE}, LAN1);
       companion.tell(source({BR0, LAN1}));
     }},
    {"an output that tarnwick leaves out", given_both,
     [](fresh_companion &companion) {
       report(MLD2_MODE_IS_EXCLUDE, {}, BR0);
       companion.tell(source({LAN1}));
       companion.tell(source({LAN1}));
     }},
    {"LANs that leave", given_both,
     [](fresh_companion &) {
       report(MLD2_CHANGE_TO_INCLUDE, {}, BR0);
       report(MLD2_BLOCK_OLD_SOURCES, {SOURCE}, LAN1);
       pass(30'000);
     }},
    {"LANs that fall silent", given_both, [](fresh_companion &) { pass(silence_ms); }},
    {"a membership upstream", given_any_source,
     [](fresh_companion &companion) {
       companion.tell(source({LAN1}));
       companion.tell(source({LAN1}));
       companion.tell(deleted_shield());
       pass(3000);
     }},
    {"a group beyond the last record", given_both,
     [](fresh_companion &companion) {
       for (std::size_t i = 0; i < MOST_GROUPS; ++i) {
         companion.tell(entry_of(RTM_NEWROUTE, WAN, {BR0}, SOURCE, "ff0e::1:" + std::to_string(i)));
       }
     }},
    {"a shield of the static entry that is deleted", nothing,
     [](fresh_companion &companion) {
       companion.tell(entry_message(RTM_DELROUTE, 0, {}));
       pass(3000);
     }},
    {"a LAN that goes", given_both,
     [](fresh_companion &companion) {
       companion.tell(link_message(RTM_DELLINK, BR0, "br0"));
       companion.tell(link_message(RTM_NEWLINK, BR0, "br0"));
     }},
    {"an upstream that goes", given_both,
     [](fresh_companion &companion) {
       companion.tell(link_message(RTM_DELLINK, WAN, "wan0"));
       companion.tell(link_message(RTM_NEWLINK, WAN, "wan0"));
     }},
    {"a daemon that ends and comes", given_both,
     [](fresh_companion &companion) {
       companion.tell(netconf_message(WAN, 0));
       companion.tell(netconf_message(WAN, 1));
       pass(3000);
     }},
    {"notifications that were lost", given_both,
     [](fresh_companion &) {
       Kernel.routes = any_source({BR0}) + entry_of(RTM_NEWROUTE, 0, {}, "::") + source({BR0, LAN1});
       look_at_everything();
       pass(3000);
     }},
    {"stop", given_both, [](fresh_companion &) { stop_group_watch(); }}};

struct injected {
  int number; // of the request that fails, counted from 1; 0 = none does
  int reason;
  bool fails_rest;
};

std::string text_of(const sweep_scenario &scenario, const injected &failure) {
  return scenario.name + ", request " + std::to_string(failure.number) + (failure.fails_rest ? " and later" : "") +
         ", errno " + std::to_string(failure.reason);
}

void check_table() {
  ASSERT_LE(GroupTable.used, MOST_GROUPS);
  for (watched_group &group : watched_groups()) {
    if (!group.is_used) {
      EXPECT_FALSE(group.is_widened);
      continue;
    }
    EXPECT_EQ(find_watched_group(group.group), &group);
    EXPECT_TRUE(group.entry_count > 0 || group.own_deletes > 0);
    EXPECT_EQ(group.awaits_own_message >> group.entry_count, 0);
    EXPECT_TRUE(!group.is_widened || find_entry(group, In6AddrAny) != nullptr);
  }
}

// The daemon begins anew, and a group of it is kept as ever.
void check_work(fresh_companion &companion) {
  Kernel.routes.clear();
  companion.tell(netconf_message(WAN, 0));
  EXPECT_EQ(GroupTable.used, 0U);
  companion.given_interfaces(1);
  look_at_everything();
  pass(silence_ms);
  companion.tell(entry_message(RTM_NEWROUTE, WAN, {WAN}) + entry_message(RTM_NEWROUTE, 0, {}));
  companion.requests();
  companion.tell(any_source({BR0}));
  companion.tell(source({BR0}));
  report(MLD2_ALLOW_NEW_SOURCES, {SOURCE}, LAN1);
  EXPECT_EQ(companion.requests(), (lines{PUT_SHIELD, JOIN_UPSTREAM, put_source(" 4 5")}));
  stop_watch();
  const lines taken_back = companion.requests();
  for (const std::string &request : {LEAVE_UPSTREAM, DELETE_SHIELD, DELETE_ENTRY, leave_of(BR0), leave_of(LAN1)}) {
    EXPECT_NE(std::find(taken_back.begin(), taken_back.end(), request), taken_back.end()) << request;
  }
}

// How many requests the scenario made.
int play(const sweep_scenario &scenario, const injected &failure) {
  SCOPED_TRACE(text_of(scenario, failure));
  const std::size_t descriptors = open_descriptors();
  fresh_companion companion;
  companion.SetUp();
  companion.given_interfaces(1);
  Kernel.entries = {SOURCE + " " + GROUP, ":: " + GROUP};
  companion.start(remedies_off{});
  companion.tell(entry_message(RTM_NEWROUTE, WAN, {WAN}) + entry_message(RTM_NEWROUTE, 0, {}));
  pass(1000);
  scenario.prepare(companion);
  const int before = Kernel.calls;
  Kernel.failures = {before + failure.number, failure.reason, failure.fails_rest, failure.number != 0};
  scenario.play(companion);
  const int made = Kernel.calls - before;
  check_table();
  pass(silence_ms);
  check_table();
  Kernel.failures = {};
  check_work(companion);
  companion.requests();
  companion.said();
  Kernel.now_ms += silence_ms;
  take_due_retry(); // is kept beyond the companion
  companion.TearDown();
  EXPECT_EQ(open_descriptors(), descriptors);
  return made;
}

} // namespace

TEST(entry_fault_sweep, every_request_may_fail) {
  int failures = 0;
  for (const sweep_scenario &scenario : scenarios) {
    const int requests = play(scenario, {});
    EXPECT_GT(requests, 0) << scenario.name;
    for (int number = 1; number <= requests; ++number) {
      for (const int reason : errors) {
        play(scenario, {number, reason, false});
        play(scenario, {number, reason, true});
        failures += 2;
      }
    }
  }
  std::printf("%zu scenarios, %d failures injected\n", scenarios.size(), failures);
}

// Start-up, reports of every kind, ticks through every timer, dump and shutdown of the MLD proxy: each request fails
// once.
#include "tests/support/fault_sweep.h"

#include "core/main_loop.h"
#include "core/memory.h"
#include "core/start_up.h"
#include "core/state_dump.h"
#include "fixture.h"
#include "mld/mld_group.h"
#include "mld/mld_receive.h"
#include "mld/mld_shutdown.h"
#include "mld/mld_timers.h"
#include "tests/support/invariants.h"

#include <cerrno>
#include <csignal>

namespace {

using namespace scripted;

// Not part of the test that sweeps, so that every run has a proxy of its own.
struct fresh_mld : mld_fixture {
  void TestBody() override {}
};

struct fresh_proxy : proxy_fixture {
  void TestBody() override {}
};

std::string check_stopped(int lost_at_least, int lost_at_most) {
  const int lost = malloc_counter - Kernel.allocations_refused - free_counter;
  const bool is_empty = MldRouter.interfaces.head == nullptr && MldRouter.free_groups.head == nullptr &&
                        MldRouter.free_hosts.head == nullptr && MldRouter.free_queries.head == nullptr;
  if (!is_empty) {
    return "records left after the stop";
  }
  if (lost < lost_at_least || lost > lost_at_most) {
    return "records lost: " + std::to_string(lost);
  }
  return "";
}

using mld_steps = std::function<void(fresh_mld &)>;

sweep_scenario on_running_proxy(const std::string &name, const mld_steps &prepare, const std::function<void()> &play) {
  return {name, [=](const std::function<void()> &arm) -> std::string {
            fresh_mld proxy;
            prepare(proxy);
            arm();
            run(play);
            disarm();
            record_count count;
            const std::string complaint = check_mld_records(count);
            if (!complaint.empty()) {
              return complaint;
            }
            if (count.groups != MLD_GROUP_POOL_SIZE || count.queries != MLD_QUERY_POOL_SIZE) {
              return "pools drifted";
            }
            const int deleted = MLD_HOST_POOL_SIZE - count.hosts;
            run([] { mld_proxy_stop(); });
            return check_stopped(deleted, deleted);
          }};
}

void receive(const std::vector<std::uint8_t> &bytes, const std::string &sender, int ifindex = 3) {
  Kernel.messages.push_back({bytes, sender, ifindex});
  mld_network_socket_read_data();
  Kernel.messages.clear();
}

void tick(int times = 1) {
  for (int i = 0; i < times; ++i) {
    mld_router_timer_expired();
  }
}

// Groups in every condition: any-source, with sources, being checked, on both interfaces.
void given_busy_lan(fresh_mld &proxy) {
  proxy.given_group(proxy.br0, "ff0e::1");
  proxy.given_group(proxy.br0, "ff0e::2", {"2001:db8::1", "2001:db8::2"});
  proxy.given_group(proxy.lan1, "ff0e::2", {"2001:db8::1"});
  proxy.given_group(proxy.lan1, "ff0e::3", {"::"});
  proxy.given_checking(proxy.given_group(proxy.br0, "ff0e::4", {"2001:db8::4", "2001:db8::5"}), 2, 0);
}

void given_nothing(fresh_mld &) {}

constexpr char host[] = "fe80::a";

std::vector<sweep_scenario> report_scenarios() {
  std::vector<sweep_scenario> all;
  for (int type = 1; type <= 6; ++type) {
    for (const bool has_sources : {false, true}) {
      const lines sources = has_sources ? lines{"2001:db8::1", "2001:db8::9"} : lines{};
      const std::string name =
          "record of type " + std::to_string(type) + (has_sources ? " with sources" : " without sources");
      const auto play = [=] {
        receive(mldv2_report({{type, "ff0e::1", sources}, {type, "ff0e::2", sources}, {type, "ff0e::7", sources}}),
                host);
        receive(mldv2_report({{type, "ff0e::4", sources}}), host);
        receive(mldv2_report({{type, "ff0e::2", sources}}), host, 4);
        tick(3);
      };
      all.push_back(on_running_proxy(name + ", busy LAN", given_busy_lan, play));
      all.push_back(on_running_proxy(name + ", quiet LAN", given_nothing, play));
    }
  }
  return all;
}

void leave_and_wait() {
  receive(mldv2_report({{3, "ff0e::1", {}}, {3, "ff0e::2", {}}}), host);
  tick(13);
}

void let_sources_run_out() {
  for (const mld_interface *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
    for (auto *group = list_first<mld_group>(&intr->groups); group != nullptr; group = list_after(group)) {
      for (mld_source &slot : mld_sources(group)) {
        slot.source_timer = 2;
      }
    }
  }
  tick(16);
}

void let_groups_run_out() {
  for (const mld_interface *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
    for (auto *group = list_first<mld_group>(&intr->groups); group != nullptr; group = list_after(group)) {
      group->group_timer = 1;
    }
  }
  tick(16);
}

std::vector<sweep_scenario> life_scenarios() {
  return {
      on_running_proxy("MLDv1 reports", given_busy_lan,
                       [] {
                         receive(mldv1_message(131, "ff0e::1"), host);
                         receive(mldv1_message(131, "ff0e::9"), host);
                         receive(mldv1_message(131, "ff0e::4"), host);
                       }),
      on_running_proxy("queries of other routers", given_busy_lan,
                       [] {
                         receive(mldv1_message(130, "::"), "fe80::1");
                         tick(2);
                         receive(mldv1_message(130, "::"), "fe80::ff");
                         tick(2);
                       }),
      on_running_proxy("leave without answer", given_busy_lan, leave_and_wait),
      on_running_proxy("sources run out", given_busy_lan, let_sources_run_out),
      on_running_proxy("groups run out", given_busy_lan, let_groups_run_out),
      on_running_proxy("state dump", given_busy_lan, [] { write_state_dump(); }),
      on_running_proxy("shutdown half-way through a leave", given_busy_lan,
                       [] {
                         receive(mldv2_report({{3, "ff0e::1", {}}}), host);
                         tick();
                       }),
  };
}

// From the command line to the end, with a tick, a report, a dump and a stop in between.
sweep_scenario whole_life(const std::string &name, std::vector<std::string> arguments) {
  return {name, [=](const std::function<void()> &arm) mutable -> std::string {
            fresh_proxy proxy;
            Kernel.interfaces = {{"wan0", 2, 0x1003, "fe80::2"}, {"br0", 3, 0x1003, "fe80::3"}};
            Kernel.messages = {{mldv2_report({{4, "ff0e::1", {}}}), host, 3}};
            const int mld_socket = 500;
            Kernel.next_socket = mld_socket;
            Kernel.may_wait_for_ever = true; // where a refused signal or read leaves nothing to wake the loop
            Kernel.wake_ups = {{{}, -1, EINTR, {SIGALRM}},
                               {{mld_socket}, 0, 0, {}},
                               {{}, -1, EINTR, {SIGUSR1}},
                               {{}, -1, EINTR, {SIGTERM}}};
            Kernel.signals_in_blocked_read = {SIGALRM, SIGALRM, SIGALRM, SIGALRM, SIGTERM, SIGTERM, SIGTERM};
            std::vector<char *> argv;
            for (std::string &argument : arguments) {
              argv.push_back(argument.data());
            }
            argv.push_back(nullptr);
            arm();
            run([&] {
              if (start_up(static_cast<int>(argv.size() - 1), argv.data()) == 0) {
                run_main_loop();
              }
            });
            disarm();
            record_count count;
            const std::string complaint = check_mld_records(count);
            if (!complaint.empty()) {
              return complaint;
            }
            run([] { mld_proxy_stop(); });
            const int discovery_record = 1; // lost when discovery fails between its allocation and its list
            return check_stopped(0, discovery_record + 1);
          }};
}

TEST(mld_fault_sweep, every_request_of_every_report_may_fail) { EXPECT_GT(sweep_all(report_scenarios()), 1000); }

TEST(mld_fault_sweep, every_request_of_timers_dump_and_shutdown_may_fail) {
  EXPECT_GT(sweep_all(life_scenarios()), 1000);
}

TEST(mld_fault_sweep, every_request_of_a_whole_life_may_fail) {
  EXPECT_GT(sweep_all({whole_life("6to6", {"tarnwick", "-u", "wan0", "-d", "br0"}),
                       whole_life("6to6 in the background", {"tarnwick", "-b", "-u", "wan0", "-d", "br0"})}),
            100);
}

} // namespace

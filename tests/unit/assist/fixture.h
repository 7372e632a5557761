// A companion for wan0 (index 3) and br0, lan1 (indexes 4, 5), which gets its events as notifications.
#pragma once

#include "assist/interface_watch.h"
#include "assist/mld_socket.h"
#include "assist/querier.h"
#include "assist/retry.h"
#include "assist/static_entry.h"
#include "mld_bytes.h"
#include "netlink_bytes.h"
#include "tests/support/companion_kernel.h"

#include <algorithm>
#include <linux/rtnetlink.h>

inline const std::string ADD_ENTRY = "MRT6_ADD_MFC :: :: parent 3 to 3";
inline const std::string DELETE_ENTRY = "MRT6_DEL_MFC :: :: parent 3 to";

inline std::string general_query(unsigned index) {
  return "query :: from fe80::" + std::to_string(index) + " to ff02::1 on " + std::to_string(index) + " in 2000 ms";
}
inline std::string query_for(const std::string &group, unsigned index = 4) {
  return "query " + group + " from fe80::" + std::to_string(index) + " to " + group + " on " + std::to_string(index) +
         " in 1000 ms";
}

inline std::string join_of(unsigned index) { return "IPV6_ADD_MEMBERSHIP ff02::16 " + std::to_string(index); }
inline std::string leave_of(unsigned index) { return "IPV6_DROP_MEMBERSHIP ff02::16 " + std::to_string(index); }

// The companion's work on entries of groups has tests of its own.
inline remedies_off without_entries() {
  remedies_off without{};
  for (const char *name :
       {"bridge-refresh", "add-outputs", "remove-outputs", "clear-left-groups", "shield-static", "widen-upstream"}) {
    switch_off(name, without);
  }
  return without;
}

class watch_fixture : public companion_fixture {
protected:
  void SetUp() override {
    companion_fixture::SetUp();
    Kernel.now_ms += 1'000'000; // beyond any retry that an earlier test has left
    take_due_retry();
  }

  static interface_name name(const std::string &text) {
    interface_name copied{};
    text.copy(copied.data(), copied.size() - 1);
    return copied;
  }

  static void start(const remedies_off &without = without_entries()) {
    assist_options options{};
    options.without = without;
    options.upstream = name("wan0");
    options.downstreams[0] = name("br0");
    options.downstreams[1] = name("lan1");
    options.downstream_count = 2;
    start_watch(options, ROUTING_SOCKET, MLD_SOCKET);
  }

  static void given_interfaces(std::int32_t mc_forwarding) {
    Kernel.indexes = {{"wan0", 3}, {"br0", 4}, {"lan1", 5}};
    Kernel.mc_forwarding = {{3, mc_forwarding}};
    Kernel.own_addresses = {{4, "fe80::4"}, {5, "fe80::5"}};
  }

  // All interfaces there, wan0 a MIF, its entry added and the entry's notification read.
  void given_working_companion() {
    given_interfaces(1);
    start();
    tell(entry_message(RTM_NEWROUTE, 3, {3}));
    requests();
    said();
  }

  // The same, with its first general queries sent.
  void given_quiet_companion() {
    given_working_companion();
    send_due_queries();
    requests();
    Kernel.now_ms += 1000;
  }

  // Lets time pass, deadline by deadline.
  static void wait(std::int64_t ms) {
    const std::int64_t end_ms = Kernel.now_ms + ms;
    for (std::int64_t next_ms = next_query_ms(); next_ms <= end_ms; next_ms = next_query_ms()) {
      Kernel.now_ms = std::max(Kernel.now_ms, next_ms);
      send_due_queries();
    }
    Kernel.now_ms = end_ms;
  }

  static void hear(const mld_bytes &bytes, unsigned index = 4) {
    scripted_mld message;
    message.bytes = bytes;
    message.index = index;
    hear(message);
  }

  static void hear(const scripted_mld &message) {
    Kernel.mld.push_back(message);
    handle_mld_messages(MLD_SOCKET);
  }

  static void tell(const byte_vector &bytes) {
    netlink_bytes rest{bytes};
    for (notification event; next_notification(rest, event);) {
      handle_notification(event);
    }
  }
};

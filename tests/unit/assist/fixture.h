// A companion for wan0 (index 3) and br0, lan1 (indexes 4, 5), told by notifications what happens.
#pragma once

#include "assist/interface_watch.h"
#include "assist/retry.h"
#include "assist/static_entry.h"
#include "netlink_bytes.h"
#include "tests/support/companion_kernel.h"

#include <linux/rtnetlink.h>

inline const std::string ADD_ENTRY = "MRT6_ADD_MFC :: :: parent 3 to 3";
inline const std::string DELETE_ENTRY = "MRT6_DEL_MFC :: :: parent 3 to 3";

inline std::string join_of(unsigned index) { return "IPV6_ADD_MEMBERSHIP ff02::16 " + std::to_string(index); }
inline std::string leave_of(unsigned index) { return "IPV6_DROP_MEMBERSHIP ff02::16 " + std::to_string(index); }

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

  static void start() {
    assist_options options{};
    options.upstream = name("wan0");
    options.downstreams[0] = name("br0");
    options.downstreams[1] = name("lan1");
    options.downstream_count = 2;
    start_watch(options, ROUTING_SOCKET);
  }

  static void given_interfaces(std::int32_t mc_forwarding) {
    Kernel.indexes = {{"wan0", 3}, {"br0", 4}, {"lan1", 5}};
    Kernel.mc_forwarding = {{3, mc_forwarding}};
  }

  // All interfaces there, wan0 a MIF, its entry added and the entry's notification read.
  void given_working_companion() {
    given_interfaces(1);
    start();
    tell(entry_message(RTM_NEWROUTE, 3, {3}));
    requests();
    said();
  }

  static void tell(const byte_vector &bytes) {
    netlink_bytes rest{bytes};
    for (notification told; next_notification(rest, told);) {
      handle_notification(told);
    }
  }
};

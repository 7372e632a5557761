// A proxy that is just starting: nothing of it exists but the interfaces of the machine and the routing socket.
#pragma once

#include "core/memory.h"
#include "core/settings.h"
#include "fixture.h"
#include "tests/support/leaks_on_purpose.h"

namespace scripted {

struct mld_start_fixture : proxy_fixture {
  mld_start_fixture() {
    UpstreamInterfacesName = "wan0";
    MldRouter.upstream_name = copy_interface_name(UpstreamInterfacesName);
    MldRouter.socket = MLD_SOCKET;
    Kernel.interfaces = {{"lo", 1, 0x49, "::1"},
                         {"wan0", 2, 0x1003, "fe80::2"},
                         {"br0", 3, 0x1003, "fe80::3"},
                         {"lan1", 4, 0x1003, "fe80::4"}};
  }

  // The records that a successful step leaves behind for the steps after it.
  ~mld_start_fixture() override {
    for (list *records :
         {&MldRouter.interfaces, &MldRouter.free_groups, &MldRouter.free_hosts, &MldRouter.free_queries}) {
      while (list_node *record = list_remove(records)) {
        my_free(record);
      }
    }
  }

  void given_downstream(const lines &names) {
    std::size_t slot = 0;
    for (const std::string &name : names) {
      MldRouter.downstream_names[slot++] = copy_interface_name(name.c_str());
    }
  }
};

inline lines operator+(lines first, const lines &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The log's last lines: the report on memory.
inline lines memory_report() {
  const std::string leaks =
      "Memory leaks. Malloc:" + std::to_string(malloc_counter) + " Free:" + std::to_string(free_counter) + ".";
  return {malloc_counter == free_counter ? logged_debug("mld_proxy_stop", "No memory leaks detected.")
                                         : logged_error("mld_proxy_stop", leaks),
          logged_debug("mld_proxy_stop", "MLD Proxy was using " + std::to_string(malloced_size) + " bytes.")};
}

// What stopping leaves in the transcript when there is no interface to clean up.
inline lines stopped_without_interfaces() {
  return lines{logged_debug("mld_proxy_stop", "Stop MLD Proxy."), "setsockopt(mld, MRT6_DONE) length=0",
               logged_debug("mld_proxy_stop", "setsockopt: MRT6_DONE")} +
         memory_report();
}

} // namespace scripted

// Interface discovery step by step, with the machine of mld_start_fixture.h:
//
//   wan0 (2) fe80::2      upstream
//   br0  (3) fe80::3      downstream
//   lan1 (4) fe80::4      downstream
#pragma once

#include "mld/mld_interface.h"
#include "start_fixture.h"

#include <algorithm>

namespace scripted {

inline constexpr char discovery[] = "mld_create_network_list";

inline std::string debug(const std::string &message) { return logged_debug(discovery, message); }
inline std::string error(const std::string &message) { return logged_error(discovery, message); }

struct mld_discovery_fixture : mld_start_fixture {
  mld_discovery_fixture() { Kernel.names[FIRST_NEW_SOCKET] = "net iface"; }

  interface &machine(const std::string &name) {
    return *std::find_if(Kernel.interfaces.begin(), Kernel.interfaces.end(),
                         [&](const interface &one) { return one.name == name; });
  }

  void when_discovered() {
    when([&] { result = mld_create_network_list(); });
  }

  void then_interfaces_are(const lines &names) {
    lines found;
    for (auto *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr; intr = list_after(intr)) {
      found.emplace_back(intr->name.data());
    }
    EXPECT_EQ(found, names);
  }

  int result = 1;
};

inline const lines opened{"socket(AF_INET6, SOCK_DGRAM, 0)"};
inline const lines closed{"close(net iface)"};

// What a name goes through until it is registered, from its index to its flags.
inline lines looked_up(const std::string &name, int index) {
  return {
      "ioctl(net iface, SIOCGIFINDEX) " + name,
      debug("index=" + std::to_string(index)),
      "ioctl(net iface, SIOCGIFFLAGS) " + name,
  };
}

inline lines flagged(const std::string &name, const std::string &flags = "0x1303") {
  return {"ioctl(net iface, SIOCSIFFLAGS) " + name + " flags=" + flags};
}

inline const lines given_socket{"fopen(/proc/net/if_inet6, r)", "socket(AF_INET6, SOCK_RAW, 58)"};

inline lines registered(const std::string &name, int index) {
  const std::string number = std::to_string(index);
  return {
      "if_nametoindex(" + name + ")",
      "setsockopt(mld, MRT6_ADD_MIF) mifi=" + number + " flags=0 threshold=0 pifi=" + number + " rate=0",
      debug("setsockopt: MRT6_ADD_MIF"),
      debug("Adding MIF for interface: " + name + "."),
  };
}

// The upstream socket is the first one behind the one for the ioctls.
inline const lines made_upstream{
    debug("Set wan0 as UPSTREAM interface."),
    "setsockopt(fd 1101, IPV6_MULTICAST_IF) = 2",
    debug("setsockopt: IPV6_MULTICAST_IF"),
};

inline const lines upstream_found =
    looked_up("wan0", 2) + flagged("wan0") + given_socket + made_upstream + registered("wan0", 2);

inline lines named(const std::string &name) { return {debug("ifr.ifr_name=" + name)}; }

inline lines downstream_found(const std::string &name, int index) {
  return named(name) + looked_up(name, index) + flagged(name) + given_socket +
         lines{debug("Set " + name + " as DOWNSTREAM interface.")} + registered(name, index);
}

// How a stop cleans up an interface whose own socket and the socket for the clean-up have these names.
inline lines cleaned(const std::string &name, const std::string &mif, const std::string &ioctl_socket,
                     const std::string &own_socket) {
  return {
      logged_debug("mld_proxy_clean_interface", "Cleaning interface: " + name + "."),
      "socket(AF_INET, SOCK_DGRAM, 0)",
      "ioctl(" + ioctl_socket + ", SIOCSIFFLAGS) " + name + " flags=0x1003",
      "setsockopt(mld, MRT6_DEL_MIF) mifi=" + mif + " flags=0 threshold=0 pifi=0 rate=0",
      logged_debug("mld_proxy_clean_interface", "setsockopt: MRT6_DEL_MIF"),
      "close(" + ioctl_socket + ")",
      "close(" + own_socket + ")",
  };
}

} // namespace scripted

// A router just before the IGMP side looks for its interfaces, and what discovery leaves in the transcript.
#pragma once

#include "core/memory.h"
#include "fixture.h"
#include "igmp/igmp_interface.h"

#include <algorithm>
#include <net/if.h>

namespace scripted {
inline namespace igmp_words { // the MLD side has words of the same names

inline constexpr char discovery[] = "igmp_create_network_list";
inline constexpr char unusable[] = "setsockopt(igmp, MRT_DONE) length=0"; // what shows that the proxy was stopped

inline const std::string conf_request = "ioctl(fd 1100, SIOCGIFCONF) room=" + std::to_string(50 * sizeof(ifreq));

// Interfaces as on a router: lo, wan0 (2), br0 (3). Socket 1100 is discovery's, then one for each interface.
struct igmp_discovery_fixture : igmp_start_fixture {
  igmp_discovery_fixture() {
    UpstreamInterfacesName = "wan0";
    run([] { init_igmp_config(); });
    take_transcript();
    IgmpRouter.socket = IGMP_SOCKET;
    Kernel.names[IGMP_SOCKET] = "igmp";
    given_interface("lo", 1, IFF_LOOPBACK, "127.0.0.1");
    given_interface("wan0", 2, 0x1003, "192.0.2.2");
    given_interface("br0", 3, 0x1043, "198.51.100.3");
  }

  // After a test with a running proxy, frees its records without requests.
  ~igmp_discovery_fixture() override {
    while (list_node *record = list_remove(&IgmpRouter.interfaces)) {
      my_free(record);
    }
  }

  void given_interface(const std::string &name, int index, unsigned int flags, const std::string &ipv4,
                       const std::string &peer = "") {
    Kernel.interfaces.push_back({name, index, flags, "", ipv4, peer});
  }

  void given_interfaces(std::initializer_list<std::string> names) {
    std::vector<scripted::interface> kept;
    for (const scripted::interface &one : Kernel.interfaces) {
      if (std::find(names.begin(), names.end(), one.name) != names.end()) {
        kept.push_back(one);
      }
    }
    Kernel.interfaces = kept;
  }

  int discover() {
    int result = 1;
    when([&] { result = igmp_create_network_list(); });
    return result;
  }

  igmp_interface *found(const std::string &name) {
    for (auto *intr = list_first<igmp_interface>(&IgmpRouter.interfaces); intr != nullptr; intr = list_after(intr)) {
      if (name == intr->name.data()) {
        return intr;
      }
    }
    return nullptr;
  }

  // The transcript's requests, for assertions about some of them.
  lines requests_with(const std::string &part) {
    lines kept;
    for (const std::string &line : take_transcript()) {
      if (is_request(line) && line.find(part) != std::string::npos) {
        kept.push_back(line);
      }
    }
    return kept;
  }

  bool was_logged(const std::string &line) {
    return std::find(Kernel.transcript.begin(), Kernel.transcript.end(), line) != Kernel.transcript.end();
  }
};

inline const lines opening{
    logged_information(discovery, "Create network list for IGMP proxy."),
    "socket(AF_INET, SOCK_DGRAM, 0)",
    conf_request,
};

inline lines loopback_lines() { return {"ioctl(fd 1100, SIOCGIFINDEX) lo", "ioctl(fd 1100, SIOCGIFFLAGS) lo"}; }

inline lines set_up_lines(const std::string &name, const std::string &flags, const std::string &address,
                          const std::string &socket) {
  return {
      "ioctl(fd 1100, SIOCGIFINDEX) " + name,
      "ioctl(fd 1100, SIOCGIFFLAGS) " + name,
      "ioctl(fd 1100, SIOCSIFFLAGS) " + name + " flags=" + flags,
      "socket(AF_INET, SOCK_RAW, 2)",
      logged_information(discovery, "set IP_MULTICAST_IF for address " + octets_text(address)),
      "setsockopt(" + socket + ", IP_MULTICAST_IF) " + address,
  };
}

inline std::string join_request(const std::string &socket, const std::string &address, int ifindex) {
  return "setsockopt(" + socket + ", IP_ADD_MEMBERSHIP) group=" + wire_text(IgmpAllRouters) + " address=" + address +
         " ifindex=" + std::to_string(ifindex);
}

inline lines downstream_lines(const std::string &name, const std::string &address, int ifindex,
                              const std::string &socket) {
  return {
      logged_information(discovery, "Detected " + name + " as DOWNSTREAM interface."),
      logged_debug(discovery, "mreq.imr_ifindex   = " + std::to_string(ifindex)),
      logged_debug(discovery, "mreq.imr_multiaddr = 224.0.0.2"),
      logged_debug(discovery, "mreq.imr_address   = " + octets_text(address)),
      join_request(socket, address, ifindex),
  };
}

inline lines joined_lines(const std::string &name) {
  return {
      logged_information(discovery,
                         "Detected " + name + " as DOWNSTREAM and added membership: " + wire_text(IgmpAllRouters)),
      logged_information(discovery, "Detected " + name + " as DOWNSTREAM and added ALL Router membership."),
  };
}

inline std::string vif_request(int ifindex, const std::string &address) {
  return "setsockopt(igmp, MRT_ADD_VIF) vifi=" + std::to_string(ifindex) +
         " flags=0 threshold=0 rate=0 local=" + address + " remote=0.0.0.0";
}

inline std::string mif_request(int mifi, int pifi) {
  return "setsockopt(igmp, MRT6_ADD_MIF) mifi=" + std::to_string(mifi) +
         " flags=0 threshold=0 pifi=" + std::to_string(pifi) + " rate=0";
}

} // namespace igmp_words
} // namespace scripted

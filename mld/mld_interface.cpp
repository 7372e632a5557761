#include "mld/mld_interface.h"

#include "core/memory.h"
#include "mld/mld_link_local.h"
#include "mld/mld_options.h"
#include "mld/mld_shutdown.h"

#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define DISCOVERY_HERE MLD_STEP_OF("mld_create_network_list")

static_assert(sizeof(mif6ctl) == 12);

namespace {

constexpr std::uint16_t proxy_flags = IFF_PROMISC | IFF_ALLMULTI;

// What discovery learns of an interface before it has a record.
struct interface_facts {
  interface_name name;
  std::uint32_t ifindex;
  std::uint16_t flags; // as found
};

ifreq request_for(const interface_name &name) {
  ifreq request{};
  std::memcpy(request.ifr_name, name.data(), sizeof(request.ifr_name));
  return request;
}

int stop_discovery() {
  mld_proxy_stop();
  return -1;
}

// A failure is logged and the flags read as the request holds them, index bytes included.
std::uint16_t read_flags(int ioctl_socket, ifreq &request) {
  if (ioctl(ioctl_socket, SIOCGIFFLAGS, &request) < 0) {
    log_error(DISCOVERY_HERE, "Unable to get interface flags for %s.", request.ifr_name);
  }
  return static_cast<std::uint16_t>(request.ifr_flags);
}

void set_proxy_flags(int ioctl_socket, ifreq &request, std::uint16_t flags) {
  request.ifr_flags = static_cast<short>(flags | proxy_flags);
  if (ioctl(ioctl_socket, SIOCSIFFLAGS, &request) < 0) {
    log_error(DISCOVERY_HERE, "Unable to set interface flags for %s.", request.ifr_name);
  }
}

// The peer address is only asked for, not kept.
void ask_peer_address(int ioctl_socket, ifreq &request) {
  log_debug(DISCOVERY_HERE, "Detected %s as Point to Point interface.", request.ifr_name);
  if (ioctl(ioctl_socket, SIOCGIFDSTADDR, &request) < 0) {
    log_error(DISCOVERY_HERE, "Unable to get peer address for %s.", request.ifr_name);
  }
}

// Returns a record with link-local address and socket, or null after logging.
mld_interface *make_interface(const interface_facts &facts) {
  mld_interface *intr = my_malloc_record<mld_interface>();
  if (intr == nullptr) {
    log_error(DISCOVERY_HERE, "Unable to allocate memory.");
    return nullptr;
  }
  intr->name = facts.name;
  intr->ifindex = facts.ifindex;
  intr->saved_flags = facts.flags;
  intr->is_querier = 1;
  intr->query_timer = 0;
  if (set_linklocal(intr) == -1) {
    return nullptr;
  }
  intr->socket = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
  if (intr->socket < 0) {
    log_error(DISCOVERY_HERE, "Unable to open MLD Raw socket for interface:%s.", intr->name.data());
    return nullptr;
  }
  return intr;
}

// Registers the interface with the kernel's multicast router; MIF numbers are interface indexes.
bool register_mif(mld_interface *intr) {
  mif6ctl request{};
  request.mif6c_mifi = static_cast<mifi_t>(intr->ifindex);
  request.mif6c_pifi = static_cast<std::uint16_t>(if_nametoindex(intr->name.data()));
  if (setsockopt(MldRouter.socket, IPPROTO_IPV6, MRT6_ADD_MIF, &request, sizeof(request)) != 0) {
    intr->vif_index = UINT32_MAX;
    log_request_failed(DISCOVERY_HERE, MLD_OPTION_MRT6_ADD_MIF);
    return false;
  }
  log_request_done(DISCOVERY_HERE, MLD_OPTION_MRT6_ADD_MIF);
  log_debug(DISCOVERY_HERE, "Adding MIF for interface: %s.", intr->name.data());
  intr->vif_index = intr->ifindex;
  return true;
}

// Returns 0, or -1 when the proxy cannot run with this upstream interface.
int add_upstream(int ioctl_socket) {
  interface_facts facts{MldRouter.upstream_name, 0, 0};
  ifreq request = request_for(facts.name);
  if (ioctl(ioctl_socket, SIOCGIFINDEX, &request) < 0) {
    log_debug(DISCOVERY_HERE, "Unable to get index for %s.", facts.name.data());
  }
  facts.ifindex = static_cast<std::uint32_t>(request.ifr_ifindex);
  log_debug(DISCOVERY_HERE, "index=%d", to_int32(facts.ifindex));
  facts.flags = read_flags(ioctl_socket, request);
  if ((facts.flags & IFF_POINTOPOINT) != 0) {
    ask_peer_address(ioctl_socket, request);
  } else {
    set_proxy_flags(ioctl_socket, request, facts.flags);
  }
  mld_interface *intr = make_interface(facts);
  if (intr == nullptr) {
    return -1;
  }
  MldRouter.upstream_interface = intr;
  intr->role = MLD_ROLE_UPSTREAM;
  log_debug(DISCOVERY_HERE, "Set %s as UPSTREAM interface.", intr->name.data());
  const int ifindex = to_int32(intr->ifindex);
  if (!kernel_request(DISCOVERY_HERE, request_log::either, intr->socket, MLD_OPTION_IPV6_MULTICAST_IF, ifindex) ||
      !register_mif(intr)) {
    return -1;
  }
  list_add(&MldRouter.interfaces, &intr->link);
  return 0;
}

// Names of WAN links: not used as LAN interfaces, though the options list them.
bool is_wan_name(const interface_name &name) {
  return std::strstr(name.data(), "ppp") != nullptr || std::strstr(name.data(), "nas") != nullptr;
}

// Returns 0 also for a name that is passed over, -1 when the proxy cannot run.
int add_downstream(int ioctl_socket, const interface_name &name) {
  interface_facts facts{name, 0, 0};
  ifreq request = request_for(name);
  log_debug(DISCOVERY_HERE, "ifr.ifr_name=%s", request.ifr_name);
  if (ioctl(ioctl_socket, SIOCGIFINDEX, &request) < 0) {
    log_debug(DISCOVERY_HERE, "Unable to get index for %s.", name.data());
    return 0;
  }
  facts.ifindex = static_cast<std::uint32_t>(request.ifr_ifindex);
  log_debug(DISCOVERY_HERE, "index=%d", to_int32(facts.ifindex));
  facts.flags = read_flags(ioctl_socket, request);
  if ((facts.flags & IFF_LOOPBACK) != 0) {
    return 0;
  }
  set_proxy_flags(ioctl_socket, request, facts.flags);
  mld_interface *intr = make_interface(facts);
  if (intr == nullptr) {
    return -1;
  }
  if (is_wan_name(name)) {
    // Its flags stay changed and its socket stays open; the interface is simply not used.
    log_debug(DISCOVERY_HERE, "Detected %s as non-DOWNSTREAM interface.", name.data());
    my_free(intr);
    return 0;
  }
  log_debug(DISCOVERY_HERE, "Set %s as DOWNSTREAM interface.", name.data());
  intr->role = MLD_ROLE_DOWNSTREAM;
  if (!register_mif(intr)) {
    return -1;
  }
  list_add(&MldRouter.interfaces, &intr->link);
  return 0;
}

} // namespace

int mld_create_network_list() {
  const int ioctl_socket = socket(AF_INET6, SOCK_DGRAM, 0);
  if (ioctl_socket < 0) {
    log_error(MLD_HERE, "Unable to open MLD socket for net iface.");
    return stop_discovery();
  }
  if (add_upstream(ioctl_socket) == -1) {
    return stop_discovery();
  }
  for (const interface_name &name : MldRouter.downstream_names) {
    if (name[0] == '\0') {
      break;
    }
    if (add_downstream(ioctl_socket, name) == -1) {
      return stop_discovery();
    }
  }
  close(ioctl_socket);
  return 0;
}

int mld_check_upstream_interface() {
  if (MldRouter.upstream_interface == nullptr) {
    log_error(MLD_HERE, "Unable to locate upstream interface. Aborting !");
    return stop_discovery();
  }
  return 0;
}

mld_interface *mld_find_interface(std::uint32_t ifindex) {
  for (mld_interface *intr : list_records<mld_interface>(&MldRouter.interfaces)) {
    if (intr->ifindex == ifindex) {
      return intr;
    }
  }
  return nullptr;
}

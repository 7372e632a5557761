#include "igmp/igmp_interface.h"

#include "core/group_mapping.h"
#include "core/index_table.h"
#include "core/memory.h"
#include "igmp/igmp_group.h"
#include "igmp/igmp_shutdown.h"
#include "igmp/igmp_vif.h"
#include "platform/nvram.h"

#include <algorithm>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <span>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

// All steps below are one operation for the reader of the log.
#define DISCOVERY_HERE IGMP_STEP_OF("igmp_create_network_list")

static_assert(sizeof(ip_mreqn) == 12);
static_assert(sizeof(ipv6_mreq) == 20);

namespace {

constexpr std::uint16_t proxy_flags = IFF_PROMISC | IFF_ALLMULTI;

constexpr std::size_t interface_list_size = 50;
using interface_list = std::array<ifreq, interface_list_size>;

// What discovery learns of an interface before it has a record.
struct interface_facts {
  interface_name name;
  std::int32_t ifindex;
  std::uint16_t flags; // as found
  std::uint32_t address;
};

enum class discovery_step {
  passed_over, // not a candidate
  upstream,
  candidate, // downstream, or refused for its name
  fatal      // the proxy cannot run
};

int stop_discovery() {
  igmp_proxy_stop();
  return -1;
}

std::uint32_t request_address(const ifreq &request) {
  sockaddr_in address;
  std::memcpy(&address, &request.ifr_addr, sizeof(address));
  return address.sin_addr.s_addr;
}

// The second key is the interface's own name, not a fixed one: whoever configures the router writes the role there.
bool is_named_by(const char *key, const interface_name &name) {
  const char *wanted = nvram_text(key);
  const char *held = nvram_get(name.data());
  return held != nullptr && std::strcmp(held, wanted) == 0;
}

void note_natpt_interfaces(const interface_facts &facts) {
  if (is_named_by("lan_ifname", facts.name)) {
    LanIndex = facts.ifindex;
  }
  if (is_named_by("ipv6_natpt_ifname", facts.name)) {
    NatptIndex = facts.ifindex;
  }
}

bool is_ignored(const interface_name &name) {
  for (const interface_name &ignored : IgmpRouter.ignore_names) {
    if (ignored[0] == '\0') {
      return false;
    }
    if (ignored == name) {
      return true;
    }
  }
  return false;
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

// The peer's address stands for the interface; without an answer the request still holds the interface's own.
std::uint32_t ask_peer_address(int ioctl_socket, ifreq &request) {
  log_debug(DISCOVERY_HERE, "Detected %s as Point to Point interface.", request.ifr_name);
  if (ioctl(ioctl_socket, SIOCGIFDSTADDR, &request) < 0) {
    log_error(DISCOVERY_HERE, "Unable to get peer address for %s.", request.ifr_name);
  }
  return request_address(request);
}

// Returns false after logging.
bool open_query_socket(igmp_interface *intr) {
  intr->socket = socket(AF_INET, SOCK_RAW, IPPROTO_IGMP);
  if (intr->socket < 0) {
    log_error(DISCOVERY_HERE, "Unable to open IGMP Raw socket.");
    return false;
  }
  log_information(DISCOVERY_HERE, "set IP_MULTICAST_IF for address %s", my_inet_ntoa(&intr->address));
  if (setsockopt(intr->socket, IPPROTO_IP, IP_MULTICAST_IF, &intr->address, sizeof(intr->address)) != 0) {
    log_error(DISCOVERY_HERE, "set socket option IP_MULTICAST_IF fail.");
    return false;
  }
  return true;
}

bool open_query_socket6(igmp_interface *intr) {
  intr->socket6 = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
  if (intr->socket6 < 0) {
    log_error(DISCOVERY_HERE, "Unable to open MLD Raw socket.");
    return false;
  }
  if (setsockopt(intr->socket6, IPPROTO_IPV6, IPV6_MULTICAST_IF, &intr->ifindex, sizeof(intr->ifindex)) != 0) {
    log_error(DISCOVERY_HERE, "set socket option IPV6_MULTICAST_IF fail.");
    return false;
  }
  return true;
}

// Returns a record with its sockets, or null after logging.
igmp_interface *make_interface(const interface_facts &facts) {
  igmp_interface *intr = my_malloc_record<igmp_interface>();
  if (intr == nullptr) {
    log_error(DISCOVERY_HERE, "Unable to allocate memory.");
    return nullptr;
  }
  constexpr std::int32_t igmp_version = 2;
  intr->name = facts.name;
  intr->ifindex = facts.ifindex;
  intr->address = facts.address;
  intr->saved_flags = static_cast<std::int16_t>(facts.flags);
  intr->is_querier = 1;
  intr->query_timer = 0;
  intr->version = igmp_version;
  if (!open_query_socket(intr) || (ProxyMode == PROXY_MODE_4TO6 && !open_query_socket6(intr))) {
    return nullptr;
  }
  return intr;
}

// Leaves are sent to the all-routers group (RFC 2236, section 9). The word goes in unswapped, so a little-endian
// kernel refuses the join and start-up ends there.
bool join_all_routers(const igmp_interface *intr) {
  ip_mreqn request{};
  request.imr_multiaddr.s_addr = IgmpAllRouters;
  request.imr_address.s_addr = intr->address;
  request.imr_ifindex = intr->ifindex;
  log_debug(DISCOVERY_HERE, "mreq.imr_ifindex   = %d", request.imr_ifindex);
  log_debug(DISCOVERY_HERE, "mreq.imr_multiaddr = %s", my_inet_ntoa(&request.imr_multiaddr.s_addr));
  log_debug(DISCOVERY_HERE, "mreq.imr_address   = %s", my_inet_ntoa(&request.imr_address.s_addr));
  if (setsockopt(intr->socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) != 0) {
    log_error(DISCOVERY_HERE, "Unable to add router membership for interface:%s.", intr->name.data());
    return false;
  }
  return true;
}

bool join_all_routers6(const igmp_interface *intr) {
  ipv6_mreq request{};
  fill_v6mreq_group_address(request.ipv6mr_multiaddr, &IgmpAllRouters);
  request.ipv6mr_interface = static_cast<unsigned int>(natpt_index_for(intr->ifindex));
  log_debug(DISCOVERY_HERE, "Add membership with multicast address %s",
            ADDRESS_TEXT(from_in6_addr(request.ipv6mr_multiaddr)));
  if (setsockopt(intr->socket6, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &request, sizeof(request)) != 0) {
    log_error(DISCOVERY_HERE, "Unable to add IPv6 membership for interface: %s.", intr->name.data());
    return false;
  }
  return true;
}

bool set_up_downstream(igmp_interface *intr) {
  log_information(DISCOVERY_HERE, "Detected %s as DOWNSTREAM interface.", intr->name.data());
  intr->role = IGMP_ROLE_DOWNSTREAM;
  if (!join_all_routers(intr) || (ProxyMode == PROXY_MODE_4TO6 && !join_all_routers6(intr))) {
    return false;
  }
  log_information(DISCOVERY_HERE, "Detected %s as DOWNSTREAM and added membership: %s", intr->name.data(),
                  IGMP_WORD_TEXT(IgmpAllRouters));
  log_information(DISCOVERY_HERE, "Detected %s as DOWNSTREAM and added ALL Router membership.", intr->name.data());
  return true;
}

// WAN-side devices that stand among the others.
bool is_wan_name(const interface_name &name) {
  return std::strstr(name.data(), "ppp") != nullptr || std::strstr(name.data(), "nas") != nullptr;
}

// Mode 4to4 forwards IPv4 everywhere; mode 4to6 takes IPv6 from upstream and gives IPv6 to the LAN's translator.
void register_interface(igmp_interface *intr) {
  const bool is_upstream = intr->role == IGMP_ROLE_UPSTREAM;
  if (ProxyMode == PROXY_MODE_4TO4 || (ProxyMode == PROXY_MODE_4TO6 && is_upstream)) {
    igmp_add_vif(DISCOVERY_HERE, intr);
  }
  if (ProxyMode == PROXY_MODE_4TO6) {
    igmp_add_mif(DISCOVERY_HERE, intr);
  }
}

discovery_step classify(igmp_interface *intr) {
  if (intr->name == IgmpRouter.upstream_name) {
    intr->role = IGMP_ROLE_UPSTREAM;
    IgmpRouter.upstream_interface = intr;
    log_information(DISCOVERY_HERE, "Detected %s as UPSTREAM interface.", intr->name.data());
    register_interface(intr);
    list_add(&IgmpRouter.interfaces, &intr->link);
    return discovery_step::upstream;
  }
  if (is_wan_name(intr->name)) {
    // Its flags stay changed and its sockets stay open; the interface is simply not used.
    log_debug(DISCOVERY_HERE, "Detected %s as non-DOWNSTREAM interface.", intr->name.data());
    my_free(intr);
    return discovery_step::candidate;
  }
  if (!set_up_downstream(intr)) {
    return discovery_step::fatal;
  }
  register_interface(intr);
  list_add(&IgmpRouter.interfaces, &intr->link);
  return discovery_step::candidate;
}

discovery_step take_entry(int ioctl_socket, const ifreq &entry) {
  interface_facts facts{copy_interface_name(entry.ifr_name), 0, 0, request_address(entry)};
  ifreq request = entry;
  if (ioctl(ioctl_socket, SIOCGIFINDEX, &request) < 0) {
    log_debug(DISCOVERY_HERE, "Unable to get index for %s.", facts.name.data());
    return discovery_step::passed_over;
  }
  facts.ifindex = request.ifr_ifindex;
  if (ProxyMode == PROXY_MODE_4TO6) {
    note_natpt_interfaces(facts); // an ignored interface may be one of the two
  }
  if (is_ignored(facts.name)) {
    return discovery_step::passed_over;
  }
  facts.flags = read_flags(ioctl_socket, request);
  if ((facts.flags & IFF_LOOPBACK) != 0) {
    return discovery_step::passed_over;
  }
  if ((facts.flags & IFF_POINTOPOINT) != 0) {
    facts.address = ask_peer_address(ioctl_socket, request);
  } else {
    set_proxy_flags(ioctl_socket, request, facts.flags);
  }
  igmp_interface *intr = make_interface(facts);
  return intr != nullptr ? classify(intr) : discovery_step::fatal;
}

// Fills the list in the kernel's order. Returns the part that was filled; empty after a failure, which sets `failed`.
std::span<const ifreq> read_interfaces(int ioctl_socket, interface_list &entries, bool &failed) {
  ifconf request{};
  request.ifc_len = sizeof(entries);
  request.ifc_req = entries.data();
  failed = ioctl(ioctl_socket, SIOCGIFCONF, &request) < 0;
  const std::size_t filled = failed || request.ifc_len < 0 ? 0 : static_cast<std::size_t>(request.ifc_len);
  return std::span<const ifreq>(entries).first(std::min(filled / sizeof(ifreq), entries.size()));
}

} // namespace

int igmp_create_network_list() {
  log_information(IGMP_HERE, "Create network list for IGMP proxy.");
  const int ioctl_socket = socket(AF_INET, SOCK_DGRAM, 0);
  if (ioctl_socket < 0) {
    log_error(IGMP_HERE, "Unable to open IGMP socket for interface.");
    return stop_discovery();
  }
  interface_list entries{};
  bool failed = false;
  const std::span<const ifreq> found = read_interfaces(ioctl_socket, entries, failed);
  if (failed) {
    log_error(IGMP_HERE, "Unable to get the list of network interfaces.");
    return stop_discovery();
  }
  int candidates = 0;
  for (const ifreq &entry : found) {
    const discovery_step step = take_entry(ioctl_socket, entry);
    if (step == discovery_step::fatal) {
      return stop_discovery();
    }
    candidates += step == discovery_step::candidate ? 1 : 0;
  }
  close(ioctl_socket);
  return candidates != 0 ? 0 : stop_discovery();
}

int igmp_check_upstream_interface() {
  constexpr int no_upstream = -2;
  if (IgmpRouter.upstream_interface == nullptr) {
    log_error(IGMP_HERE, "Unable to locate upstream interface. Aborting !");
    igmp_proxy_stop();
    return no_upstream;
  }
  return 0;
}

igmp_interface *igmp_find_interface(std::int32_t ifindex) {
  for (igmp_interface *intr : list_records<igmp_interface>(&IgmpRouter.interfaces)) {
    if (intr->ifindex == ifindex) {
      return intr;
    }
  }
  return nullptr;
}

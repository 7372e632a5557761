#include "run/private_network.h"

#include "run/netlink_exchange.h"
#include "run/network_namespace.h"
#include "run/report.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

link_workshop workshop_of(const private_network &network) {
  return {network.host_socket, network.inner_socket, network.descriptor};
}

bool open_sockets(private_network &network) {
  network.host_socket = open_netlink(NETLINK_ROUTE);
  if (network.host_socket < 0) {
    say_refused(errno, "cannot have a netlink socket");
    return false;
  }
  network.descriptor = make_network_namespace();
  if (network.descriptor < 0) {
    return false;
  }
  network.inner_socket = open_netlink_inside(network.descriptor, NETLINK_ROUTE);
  if (network.inner_socket < 0) {
    say_refused(errno, "cannot have a netlink socket in the private network");
  }
  return network.inner_socket >= 0;
}

void close_one(int &descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
  }
  descriptor = -1;
}

bool add_link(private_network &network, const link_plan &plan) {
  if (!make_private_link(workshop_of(network), plan, network.links[network.link_count])) {
    return false;
  }
  ++network.link_count;
  return true;
}

// Named by the side that they are on, so that nobody takes them for interfaces of the host.
bool add_links(const network_wish &wish, private_network &network) {
  const char *purpose = wish.downstreams[0].data();
  network.upstream = {'u', 'p', '0'};
  if (!add_link(network, {wish.upstream, network.upstream, purpose, true, wish.upstream_link})) {
    return false;
  }
  for (std::size_t i = 0; i < wish.downstream_count; ++i) {
    interface_name &name = network.downstreams[i];
    static_assert(MOST_DOWNSTREAMS <= 10, "one digit");
    name = {'d', 'o', 'w', 'n', static_cast<char>('0' + i)};
    if (!add_link(network, {wish.downstreams[i], name, wish.upstream.data(), false, upstream_link_kind::macvlan})) {
      return false;
    }
    ++network.downstream_count;
  }
  return true;
}

// The attribute holds more bits than the header has room for; those of interest are in both.
bool is_usable_link_local(const ifaddrmsg &address) {
  return address.ifa_family == AF_INET6 && address.ifa_scope == RT_SCOPE_LINK &&
         (address.ifa_flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0;
}

bool is_addressed(const private_link &link, std::uint64_t addressed_indexes) {
  return (addressed_indexes >> link.inner_index & 1) != 0;
}

// Bit n: the link of index n has its address.
std::uint64_t ask_addressed_indexes(int inner_socket) {
  netlink_request question;
  begin_request(question, RTM_GETADDR, NLM_F_DUMP);
  ifaddrmsg all{};
  all.ifa_family = AF_INET6;
  append_record(question, all);
  std::uint64_t indexes = 0;
  const int reason = exchange(inner_socket, question, [&](const netlink_message &message) {
    ifaddrmsg address;
    constexpr std::uint32_t bits = 64;
    if (message.type == RTM_NEWADDR && read_record(message.payload, address) && is_usable_link_local(address) &&
        address.ifa_index < bits) {
      indexes |= std::uint64_t{1} << address.ifa_index;
    }
  });
  return reason == 0 ? indexes : 0;
}

} // namespace

bool make_private_network(const network_wish &wish, private_network &made) {
  made = {};
  if (open_sockets(made) && add_links(wish, made)) {
    return true;
  }
  remove_private_network(made);
  return false;
}

void remove_private_network(private_network &made) {
  while (made.link_count > 0) {
    remove_private_link(workshop_of(made), made.links[--made.link_count]);
  }
  close_one(made.inner_socket);
  close_one(made.descriptor);
  close_one(made.host_socket);
}

bool is_private_network_ready(const private_network &made) {
  const std::uint64_t addressed = ask_addressed_indexes(made.inner_socket);
  for (std::size_t i = 0; i < made.link_count; ++i) {
    if (!is_addressed(made.links[i], addressed) || !is_private_link_open(workshop_of(made), made.links[i])) {
      return false;
    }
  }
  return made.link_count > 0;
}

const interface_name *find_lost_link(const private_network &made) {
  for (std::size_t i = 0; i < made.link_count; ++i) {
    if (!is_private_link_whole(workshop_of(made), made.links[i])) {
      return &made.links[i].host_name;
    }
  }
  return nullptr;
}

void remove_stale_private_network(const run_options &options) {
  const int host_socket = open_netlink(NETLINK_ROUTE);
  for (std::size_t i = 0; host_socket >= 0 && i < options.downstream_count; ++i) {
    remove_orphaned_links(host_socket, options.downstreams[i]);
  }
  if (host_socket >= 0) {
    close(host_socket);
  }
}

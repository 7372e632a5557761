#include "run/network_choice.h"

#include "run/link_request.h"
#include "run/netlink_exchange.h"
#include "run/network_namespace.h"
#include "run/report.h"
#include "run/runtime_folder.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/if_link.h>
#include <unistd.h>

namespace {

// The daemon's MIF numbers equal the interfaces' indexes; the kernel has MIFs 0 to 31 (MAXMIFS of linux/mroute6.h).
constexpr std::uint32_t highest_index = 31;
constexpr std::size_t longest_daemon_name = 8;

constexpr char mc_forwarding_path[] = "/proc/sys/net/ipv6/conf/all/mc_forwarding";

void add_reason(reason_list &list, const char *format, ...) __attribute__((format(printf, 2, 3)));

void add_reason(reason_list &list, const char *format, ...) {
  if (list.count == list.reasons.size()) {
    return;
  }
  reason_text &reason = list.reasons[list.count++];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(reason.data(), reason.size(), format, arguments);
  va_end(arguments);
}

bool is_upstream(const considered_host &host, const considered_interface &interface) {
  return &interface == host.interfaces.data();
}

considered_interface look_at(int host_socket, const interface_name &name) {
  considered_interface considered{};
  considered.name = name;
  considered.is_there = ask_carrier(host_socket, name.data(), considered.carrier) == 0;
  return considered;
}

// The kernel counts the sockets that have claimed multicast routing here.
bool is_routing_taken_now() {
  char count = '0';
  const int file = open(mc_forwarding_path, O_RDONLY | O_CLOEXEC);
  if (file >= 0) {
    const ssize_t length = read(file, &count, sizeof(count));
    close(file);
    return length == 1 && count != '0';
  }
  return false;
}

void look_at_host(int host_socket, const run_options &options, considered_host &host) {
  host = {};
  host.interfaces[host.count++] = look_at(host_socket, options.upstream);
  for (std::size_t i = 0; i < options.downstream_count; ++i) {
    host.interfaces[host.count++] = look_at(host_socket, options.downstreams[i]);
  }
  host.upstream_link = options.upstream_link;
  host.is_routing_taken = is_routing_taken_now();
}

// Tries in a network of its own, where it touches nothing of the host.
int try_links(int inner_socket, int network_namespace) {
  constexpr std::uint32_t usual_mtu = 1500;
  const ether_address addresses[] = {{2, 0, 0, 0, 0, 1}, {2, 0, 0, 0, 0, 2}, {2, 0, 0, 0, 0, 3}};
  netlink_request request;
  request_veth_pair(request, {{"b"}, addresses[1], network_namespace}, {{"a"}, addresses[0], usual_mtu});
  link_facts end;
  int reason = give_order(inner_socket, request);
  reason = reason != 0 ? reason : ask_link(inner_socket, "b", end);
  if (reason != 0) {
    return reason;
  }
  request_macvlan(request, {{"c"}, addresses[2], network_namespace}, end.index, MACVLAN_MODE_PRIVATE);
  return give_order(inner_socket, request);
}

void judge_kernel(reason_list &against) {
  const int network_namespace = make_network_namespace(); // says why not
  if (network_namespace < 0) {
    add_reason(against, "no network namespace can be made here");
    return;
  }
  const int inner_socket = open_netlink_inside(network_namespace, NETLINK_ROUTE);
  const int reason = inner_socket < 0 ? EMFILE : try_links(inner_socket, network_namespace);
  if (reason != 0) {
    add_reason(against, "%s", reason_of_refusal(reason, "veth and macvlan", "a private network").data());
  }
  if (inner_socket >= 0) {
    close(inner_socket);
  }
  close(network_namespace);
}

const char *kind_of(const considered_interface &interface) {
  return interface.carrier.link.kind[0] != '\0' ? interface.carrier.link.kind.data() : "interface";
}

void print_interfaces(const considered_host &host) {
  for (std::size_t i = 0; i < host.count; ++i) {
    const considered_interface &interface = host.interfaces[i];
    const char *side = is_upstream(host, interface) ? "upstream" : "LAN";
    if (interface.is_there) {
      std::printf("%-8s  %s: %s, index %u, %s\n", side, interface.name.data(), kind_of(interface),
                  interface.carrier.link.index, (interface.carrier.link.flags & IFF_UP) != 0 ? "up" : "down");
    } else {
      std::printf("%-8s  %s: not there now; tarnwick-run waits for it\n", side, interface.name.data());
    }
  }
}

void print_links(const considered_host &host) {
  for (std::size_t i = 0; i < host.count; ++i) {
    const considered_interface &interface = host.interfaces[i];
    if (!interface.is_there) {
      continue;
    }
    const bool is_pair = !is_upstream(host, interface) && is_bridge(interface.carrier.link);
    std::printf("  - %s: %s\n", interface.name.data(), is_pair ? "a port of the bridge" : "a link on the interface");
  }
}

// Whoever asks need not be the one who will run it, so that rights are not judged.
void judge_runtime_folder(const run_options &options, reason_list &against) {
  file_path refusing;
  if (!can_make_runtime_folder(options, refusing) && errno != EACCES) {
    add_reason(against, "the folder %s cannot be written to (%s): --runtime-folder names another", refusing.data(),
               std::strerror(errno));
  }
}

void print_judgement(const char *mode, const reason_list &against) {
  std::printf("\n--network=%s would %s\n", mode, against.count == 0 ? "work:" : "not work:");
  for (std::size_t i = 0; i < against.count; ++i) {
    std::printf("  - %s\n", against.reasons[i].data());
  }
}

void print_advice(const reason_list &against_host, const reason_list &against_private) {
  if (against_host.count == 0) {
    std::printf("\nUse --network=host (the default).\n");
  } else if (against_private.count == 0) {
    std::printf("\nUse --network=private.\n");
  } else {
    std::printf("\nNeither mode would work as things are now.\n");
  }
}

} // namespace

void judge_host_network(const considered_host &host, reason_list &against) {
  for (std::size_t i = 0; i < host.count; ++i) {
    const considered_interface &interface = host.interfaces[i];
    if (interface.is_there && interface.carrier.link.index > highest_index) {
      add_reason(against, "%s has index %u, and multicast routing in the host's network takes indexes up to %u",
                 interface.name.data(), interface.carrier.link.index, highest_index);
    }
    const std::size_t length = std::strlen(interface.name.data());
    if (length > longest_daemon_name) {
      add_reason(against, "%s has %zu characters, and tarnwick takes names of up to %zu", interface.name.data(), length,
                 longest_daemon_name);
    }
  }
  if (host.is_routing_taken) {
    add_reason(against, "another program routes IPv6 multicast in the host's network already, and only one can");
  }
}

void judge_private_network(const considered_host &host, reason_list &against) {
  for (std::size_t i = 0; i < host.count; ++i) {
    const considered_interface &interface = host.interfaces[i];
    reason_text reason;
    const bool is_pair = !is_upstream(host, interface) && is_bridge(interface.carrier.link);
    const upstream_link_kind kind = is_upstream(host, interface) ? host.upstream_link : upstream_link_kind::macvlan;
    if (interface.is_there && !is_pair && !can_carry_link(interface.carrier, kind, reason)) {
      add_reason(against, "%s", reason.data());
    }
  }
}

int explain_networks(const run_options &options) {
  considered_host host;
  const int host_socket = open_netlink(NETLINK_ROUTE);
  if (host_socket < 0) {
    say_refused(errno, "cannot have a netlink socket");
    return EXIT_FAILURE;
  }
  look_at_host(host_socket, options, host);
  close(host_socket);

  reason_list against_host{};
  reason_list against_private{};
  judge_host_network(host, against_host);
  judge_private_network(host, against_private);
  judge_kernel(against_private);
  judge_runtime_folder(options, against_host);
  judge_runtime_folder(options, against_private);

  print_interfaces(host);
  print_judgement("host", against_host);
  if (against_host.count == 0) {
    std::printf("  - in the host's own network, on these interfaces themselves\n");
  }
  print_judgement("private", against_private);
  if (against_private.count == 0) {
    print_links(host);
  }
  print_advice(against_host, against_private);
  const reason_list &against_chosen = options.network == network_mode::host ? against_host : against_private;
  return std::fflush(stdout) == 0 && against_chosen.count == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

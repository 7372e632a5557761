#include "status/check_kernel.h"

#include "status/cure.h"
#include "status/raw_socket.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr char place[] = "kernel";

// A file of /proc/net in the network namespace of a process; 0 is the caller's own.
bool read_network_table(text &table, pid_t daemon, const char *name) {
  std::array<char, 64> path;
  if (daemon > 0) {
    std::snprintf(path.data(), path.size(), "/proc/%d/net/%s", static_cast<int>(daemon), name);
  } else {
    std::snprintf(path.data(), path.size(), "/proc/self/net/%s", name);
  }
  return read_file(table, path.data());
}

bool is_ours(const process_facts &process) {
  return std::strcmp(process.name.data(), DAEMON_NAME) == 0 || std::strcmp(process.name.data(), COMPANION_NAME) == 0;
}

void read_other_holder(kernel_facts &facts, pid_t daemon) {
  text table;
  rows_of<std::uint64_t> inodes;
  rows_of<process_facts> holders;
  if (read_network_table(table, daemon, "raw6")) {
    parse_raw_icmpv6_sockets(inodes, text_of(table));
  }
  list_socket_holders(holders, inodes);
  for (const process_facts &holder : all_rows(holders)) {
    if (!is_ours(holder)) {
      ++facts.holder_count;
      facts.holder = holder.pid;
      facts.name = holder.name;
    }
  }
  free_rows(table);
  free_rows(inodes);
  free_rows(holders);
}

// The kernel writes 1 here for all while a process holds the routing socket (net/ipv6/ip6mr.c). /proc/sys shows the
// reader's own namespace.
int read_forwarding_state() {
  text content;
  int state = -1;
  if (read_file(content, "/proc/sys/net/ipv6/conf/all/mc_forwarding")) {
    state = std::atoi(text_of(content));
  }
  free_rows(content);
  return state;
}

void check_holder(check_list &list, const check_subject &subject, const kernel_facts &facts) {
  if (facts.mc_forwarding < 0) {
    add_check(list, check_result::unknown, place, "whether a process holds the routing socket cannot be read");
  } else if (facts.mc_forwarding == 0 && subject.has_daemon) {
    add_check(list, check_result::no, place, "tarnwick (process %d) runs, but nobody holds the routing socket",
              static_cast<int>(subject.daemon.pid));
    add_cure(list, "%s", restart_command());
  } else if (facts.mc_forwarding != 0 && !subject.has_daemon && facts.holder > 0) {
    add_check(list, check_result::no, place, "another program holds the routing socket: %s%s (process %d)",
              facts.holder_count > 1 ? "one of several, perhaps " : "", facts.name.data(),
              static_cast<int>(facts.holder));
    add_cure(list, facts.holder_count > 1 ? "ss -6 -w -p # which one routes multicast? Perhaps not %d" : "kill %d",
             static_cast<int>(facts.holder));
  } else if (facts.mc_forwarding != 0 && subject.has_daemon) {
    add_check(list, check_result::ok, place,
              "multicast forwarding is on, and the routing socket is held (mc_forwarding is %d)", facts.mc_forwarding);
  }
}

} // namespace

void read_kernel_facts(kernel_facts &facts, pid_t daemon) {
  facts = kernel_facts{};
  text table;
  facts.has_routing = read_network_table(table, daemon, "ip6_mr_cache");
  free_rows(table);
  facts.mc_forwarding = read_forwarding_state();
  read_other_holder(facts, daemon);
}

void check_kernel(check_list &list, const check_subject &subject, const kernel_facts &facts) {
  if (!facts.has_routing) {
    add_check(list, check_result::no, place, "no IPv6 multicast routing: /proc/net/ip6_mr_cache is missing");
    add_cure(list, "use a kernel with CONFIG_IPV6_MROUTE");
    return;
  }
  add_check(list, check_result::ok, place, "IPv6 multicast routing is compiled in");
  check_holder(list, subject, facts);
}

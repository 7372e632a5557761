#include "status/host_names.h"

#include "run/link_alias.h"
#include "run/link_facts.h"
#include "run/netlink_exchange.h"
#include "status/daemon_process.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

// A netlink socket in the daemon's network namespace; -1 if that is this program's own, or may not be entered.
int open_netlink_of(pid_t daemon) {
  process_facts facts;
  if (!read_process(facts, daemon) || facts.network == 0 || facts.network == own_network_namespace()) {
    return -1;
  }
  std::array<char, 32> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/ns/net", static_cast<int>(daemon));
  const int network_namespace = open(path.data(), O_RDONLY | O_CLOEXEC);
  if (network_namespace < 0) {
    return -1;
  }
  const int opened = open_netlink_inside(network_namespace, NETLINK_ROUTE);
  close(network_namespace);
  return opened;
}

} // namespace

void add_host_names(rows_of<mif_row> &mifs, pid_t daemon) {
  const int netlink = open_netlink_of(daemon);
  if (netlink < 0) {
    return;
  }
  for (mif_row &mif : all_rows(mifs)) {
    link_facts facts;
    if (ask_link(netlink, mif.name.data(), facts) == 0) {
      read_inner_alias(facts.alias.data(), mif.host_name);
    }
  }
  close(netlink);
}

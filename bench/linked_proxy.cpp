#include "bench/linked_proxy.h"

#include "core/settings.h"
#include "mld/mld_filter.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_interface.h"
#include "mld/mld_join.h"
#include "mld/mld_membership.h"
#include "mld/mld_receive.h"
#include "mld/mld_record.h"
#include "mld/mld_socket.h"
#include "mld/mld_start_up.h"

#include <algorithm>
#include <sys/select.h>

void linked_start(const char *upstream, const char *downstream) {
  UpstreamInterfacesName = upstream;
  DownstreamInterfacesName[0] = downstream;
  DownstreamInterfacesNum = 1;
  if (init_mld_config() == -1 || init_mld_socket() == -1 || init_mld_group() == -1 || init_mld_host() == -1 ||
      init_mld_query() == -1 || mld_create_network_list() == -1) {
    give_up("start of the proxy");
  }
}

mld_interface *linked_downstream() { return list_first<mld_interface>(&MldRouter.interfaces); }

void linked_receive(int pipe_end) {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(pipe_end, &ready);
  FD_SET(MldRouter.socket, &ready);
  if (select(std::max(pipe_end, MldRouter.socket) + 1, &ready, nullptr, nullptr, nullptr) > 0 &&
      FD_ISSET(MldRouter.socket, &ready)) {
    mld_network_socket_read_data();
  }
}

void linked_apply(mld_record_type type, const ipv6_address &group, const std::vector<ipv6_address> &sources) {
  std::vector<std::uint8_t> bytes = make_record(type, group, sources);
  const mld_record record{bytes};
  if (type == MLD2_ALLOW_NEW_SOURCES) {
    mld_router_v2_allow_new_sources(linked_downstream(), record, reporting_host);
    return;
  }
  const mld_joined_sources wanted = sources.empty() ? mld_joined_sources::all : mld_joined_sources::listed;
  mld_router_v2_add_src_group(linked_downstream(), record, wanted, reporting_host);
}

void linked_forget_group(const ipv6_address &address) {
  mld_interface *intr = linked_downstream();
  mld_group *group = mld_find_group(intr, address);
  if (group != nullptr) {
    mld_unlink_group(intr, group);
    mld_retire_group(group);
  }
}

void linked_keep_members(const ipv6_address &address) {
  mld_group *group = mld_find_group(linked_downstream(), address);
  if (group != nullptr) {
    mld_return_queries(group);
    group->state = MLD_GROUP_MEMBERS_PRESENT;
    mld_router_host_add(linked_downstream(), address, reporting_host, In6AddrAny);
  }
}

void linked_move_to_end(const ipv6_address &address) {
  mld_interface *intr = linked_downstream();
  mld_group *group = mld_find_group(intr, address);
  if (group != nullptr) {
    mld_unlink_group(intr, group);
    list_index_append(MldGroupIndex, &intr->groups, &group->link, mld_group_key(group));
  }
}

host_records linked_hosts_of(const ipv6_address &group) {
  host_records found;
  for (mld_host *host = list_first<mld_host>(&linked_downstream()->hosts); host != nullptr; host = list_after(host)) {
    if (host->group == group) {
      found.known.push_back(host);
    }
  }
  return found;
}

void linked_restore_hosts(const ipv6_address &group, const host_records &before) {
  std::vector<mld_host *> all = before.known;
  for (mld_host *host : linked_hosts_of(group).known) {
    if (std::find(all.begin(), all.end(), host) == all.end()) {
      all.push_back(host);
    }
  }
  for (mld_host *host : all) {
    // Fails for those that were deleted.
    list_index_remove(MldHostIndex, &linked_downstream()->hosts, &host->link, mld_host_key(host));
    list_add(&MldRouter.free_hosts, &host->link);
  }
}

FILE *switch_log(FILE *log) {
  FILE *before = stdout;
  stdout = log;
  return before;
}

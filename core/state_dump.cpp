#include "core/state_dump.h"

#include "core/log.h"
#include "core/state_file.h"
#include "igmp/igmp_router.h"
#include "mld/mld_router.h"

#include <arpa/inet.h>
#include <array>
#include <cstdio>

namespace {

struct dump_files {
  FILE *host_in_group; // created and left empty; kept for compatibility
  FILE *type_messages; // a line per interface
  FILE *join_state;    // a line per group and interface
};

void close_if_open(FILE *stream) {
  if (stream != nullptr) {
    std::fclose(stream);
  }
}

void write_group_line(FILE *join_state, const char *interface, const char *group, int active_seconds,
                      int report_count) {
  if (join_state != nullptr) {
    std::fprintf(join_state, "ifname: %s group: %s average: %d\n", interface, group,
                 report_count != 0 ? active_seconds : 0);
  }
}

// The groups of the local network itself. The first of them ends its interface's list: the groups behind it, which are
// older, are not shown.
bool ends_igmp_groups(std::uint32_t group) {
  return group == IgmpAllHosts || group == IgmpAllRouters || group == IgmpV3AllMcr;
}

void dump_igmp_groups(FILE *join_state, const igmp_interface *intr) {
  for (const igmp_group *group : list_records<igmp_group>(&intr->groups)) {
    if (ends_igmp_groups(group->group)) {
      return;
    }
    write_group_line(join_state, intr->name.data(), my_inet_ntoa(&group->group), group->active_seconds,
                     group->report_count);
  }
}

void dump_mld_groups(FILE *join_state, const mld_interface *intr) {
  for (const mld_group *group : list_records<mld_group>(&intr->groups)) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, group->group.data(), text.data(), text.size());
    write_group_line(join_state, intr->name.data(), text.data(), group->active_seconds, group->report_count);
  }
}

// A line for each interface of one protocol, with the lines of its groups.
template <typename interface_record>
void dump_interfaces(const dump_files &files, const char *protocol, const list &interfaces,
                     void (*dump_groups)(FILE *, const interface_record *)) {
  for (const interface_record *intr : list_records<interface_record>(&interfaces)) {
    std::fprintf(files.type_messages, "[%s]ifname: %s query: %d join: %d leave: %d timeout: %d\n", protocol,
                 intr->name.data(), static_cast<int>(intr->query_count), static_cast<int>(intr->join_count),
                 static_cast<int>(intr->leave_count), static_cast<int>(intr->timeout_count));
    dump_groups(files.join_state, intr);
  }
}

} // namespace

void write_state_dump() {
  dump_files files;
  files.host_in_group = open_state_file("/tmp/tarnwick_host_in_group");
  files.type_messages = open_state_file("/tmp/tarnwick_type_messages");
  files.join_state = open_state_file("/tmp/tarnwick_join_state");
  if (files.type_messages == nullptr) {
    // The other two streams stay open on this path: one pair is lost for each dump that fails.
    log_error(MAIN_STEP_OF("router_dump"), "Create /tmp/tarnwick_type_messages failed!");
    return;
  }
  dump_interfaces(files, "IGMP", IgmpRouter.interfaces, dump_igmp_groups);
  dump_interfaces(files, "MLD", MldRouter.interfaces, dump_mld_groups);
  close_if_open(files.host_in_group);
  close_if_open(files.join_state);
  std::fclose(files.type_messages);
}

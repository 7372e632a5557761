#include "fixture.h"

#include "core/memory.h"
#include "core/settings.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"
#include "mld/mld_receive.h"
#include "mld/mld_start_up.h"
#include "mld/mld_timers.h"
#include "mld/mld_wire.h"
#include "tests/support/invariants.h"

namespace scripted {

namespace {

constexpr char read_data[] = "mld_network_socket_read_data";
constexpr char report_handler[] = "mld_router_version2_report_handler";
constexpr char host_add[] = "mld_router_host_add";
constexpr char host_lookup[] = "mld_router_host_lookup";
constexpr char add[] = "mld_proxy_add_membership";
constexpr char add_source[] = "mldv2_add_src_membership";
constexpr char drop[] = "mld_proxy_drop_membership";

// MIF numbers of the fixture's downstream interfaces.
std::string outputs_of(const lines &interfaces) {
  std::set<std::string> numbers;
  for (const std::string &name : interfaces) {
    numbers.insert(name == "br0" ? "3" : "4");
  }
  std::string text;
  for (const std::string &number : numbers) {
    text += (text.empty() ? "" : ",") + number;
  }
  return text;
}

lines outputs_collected(const char *function, const lines &interfaces) {
  lines made;
  for (const std::string &name : interfaces) {
    made.push_back(logged_debug(function, "MFC Entry will be created for iface:" + name + "."));
  }
  return made;
}

mld_interface *make_interface(const char *name, std::uint32_t index, mld_role role, const std::string &link_local) {
  auto *intr = my_malloc_record<mld_interface>();
  intr->name = copy_interface_name(name);
  intr->ifindex = index;
  intr->vif_index = index;
  intr->role = role;
  intr->socket = static_cast<int>(1000 + index);
  intr->link_local = address(link_local);
  intr->saved_flags = 0x1003;
  intr->is_querier = 1;
  Kernel.names[intr->socket] = name;
  Kernel.interfaces.push_back({name, static_cast<int>(index), 0x1003, link_local});
  list_add(&MldRouter.interfaces, &intr->link);
  return intr;
}

} // namespace

mld_fixture::mld_fixture() {
  UpstreamInterfacesName = "wan0";
  run([] {
    init_mld_config();
    init_mld_group();
    init_mld_host();
    init_mld_query();
  });
  take_transcript();
  MldRouter.socket = MLD_SOCKET;
  wan0 = make_interface("wan0", 2, MLD_ROLE_UPSTREAM, "fe80::2");
  br0 = make_interface("br0", 3, MLD_ROLE_DOWNSTREAM, "fe80::3");
  lan1 = make_interface("lan1", 4, MLD_ROLE_DOWNSTREAM, "fe80::4");
  MldRouter.upstream_interface = wan0;
}

mld_fixture::~mld_fixture() {
  // Without requests: what the daemon would undo in the kernel is another test's matter.
  const auto free_all = [](list *records) {
    while (list_node *record = list_remove(records)) {
      my_free(record);
    }
  };
  while (auto *intr = list_pop<mld_interface>(&MldRouter.interfaces)) {
    while (auto *group = list_pop<mld_group>(&intr->groups.records)) {
      free_all(&group->queries);
      my_free(group);
    }
    free_all(&intr->hosts.records);
    my_free(intr);
  }
  free_all(&MldRouter.free_groups);
  free_all(&MldRouter.free_hosts);
  free_all(&MldRouter.free_queries);
}

mld_group *mld_fixture::given_group(mld_interface *intr, const std::string &group, const lines &sources) {
  auto *made = list_pop<mld_group>(&MldRouter.free_groups);
  *made = mld_group{};
  made->owner = &MldRouter.upstream_name;
  made->group = address(group);
  made->group_timer = 350;
  made->state = MLD_GROUP_MEMBERS_PRESENT;
  made->report_count = 1;
  for (const std::string &source : sources) {
    mld_append_source(made, address(source), 1);
  }
  mld_link_group(intr, made);
  return made;
}

void mld_fixture::given_checking(mld_group *group, int queries, int retransmit_timer) {
  group->state = MLD_GROUP_CHECKING_MEMBERSHIP;
  group->retransmit_timer = retransmit_timer;
  for (int i = 0; i < queries; ++i) {
    auto *query = list_pop<mld_query>(&MldRouter.free_queries);
    *query = mld_query{};
    query->type = ICMPV6_MGM_QUERY;
    query->max_resp = 10;
    query->group = group->group;
    list_append(&group->queries, &query->link);
  }
}

void mld_fixture::given_pool_left(list *pool, int records_left) {
  has_whole_pools = false;
  while (length(*pool) > records_left) {
    my_free(list_remove(pool));
  }
}

void mld_fixture::when_received(const std::vector<std::uint8_t> &bytes, const std::string &sender, int ifindex) {
  Kernel.messages.push_back({bytes, sender, ifindex});
  when([] { mld_network_socket_read_data(); });
}

void mld_fixture::when_ticked(int ticks) {
  for (int i = 0; i < ticks; ++i) {
    when([] { mld_router_timer_expired(); });
  }
}

lines mld_fixture::broken_invariants() {
  lines complaints;
  record_count count;
  const std::string complaint = check_mld_records(count);
  if (!complaint.empty()) {
    complaints.push_back(complaint);
  }
  if (!has_whole_pools) {
    return complaints;
  }
  if (count.groups != MLD_GROUP_POOL_SIZE) {
    complaints.push_back("groups in pool and lists: " + std::to_string(count.groups));
  }
  if (count.queries != MLD_QUERY_POOL_SIZE) {
    complaints.push_back("queries in pool and lists: " + std::to_string(count.queries));
  }
  const int deleted = MLD_HOST_POOL_SIZE - count.hosts;
  if (deleted < hosts_deleted) {
    complaints.push_back("deleted host records came back");
  }
  hosts_deleted = deleted;
  return complaints;
}

std::vector<std::uint8_t> mldv1_message(int type, const std::string &group) {
  std::vector<std::uint8_t> bytes(24, 0);
  bytes[0] = static_cast<std::uint8_t>(type);
  const ipv6_address parsed = address(group);
  std::copy(parsed.begin(), parsed.end(), bytes.begin() + 8);
  return bytes;
}

owned_record record(int type, const std::string &group, const lines &sources) {
  owned_record made;
  made.bytes = {static_cast<std::uint8_t>(type), 0, static_cast<std::uint8_t>(sources.size() >> 8),
                static_cast<std::uint8_t>(sources.size())};
  const ipv6_address parsed = address(group);
  made.bytes.insert(made.bytes.end(), parsed.begin(), parsed.end());
  for (const std::string &source : sources) {
    const ipv6_address bytes = address(source);
    made.bytes.insert(made.bytes.end(), bytes.begin(), bytes.end());
  }
  return made;
}

std::vector<std::uint8_t> mldv2_report(const std::vector<group_record> &records) {
  std::vector<std::uint8_t> bytes{
      143, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(records.size() >> 8), static_cast<std::uint8_t>(records.size())};
  for (const group_record &one : records) {
    const owned_record encoded = record(one.type, one.group, one.sources);
    bytes.insert(bytes.end(), encoded.bytes.begin(), encoded.bytes.end());
  }
  return bytes;
}

mld_report_fixture::mld_report_fixture() {
  for (list_node *node = list_get_head(&MldRouter.free_hosts); node != nullptr; node = list_get_next(node)) {
    host_records.insert(node);
  }
}

mld_report_fixture::~mld_report_fixture() {
  const auto keep = [this](const auto &records) {
    for (list_node *node = list_get_head(&records); node != nullptr; node = list_get_next(node)) {
      host_records.erase(node);
    }
  };
  keep(MldRouter.free_hosts);
  for (auto *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr; intr = list_after(intr)) {
    keep(intr->hosts.records);
  }
  for (void *lost : host_records) {
    my_free(lost);
  }
}

void mld_report_fixture::given_hosts_left(int records_left) {
  while (length(MldRouter.free_hosts) > records_left) {
    list_remove(&MldRouter.free_hosts);
  }
}

void mld_report_fixture::given_host(mld_interface *intr, const std::string &group, const std::string &host,
                                    const std::string &source) {
  auto *made = list_pop<mld_host>(&MldRouter.free_hosts);
  made->group = address(group);
  made->host = address(host);
  made->source = address(source);
  made->host_state = 2;
  list_index_append(MldHostIndex, &intr->hosts, &made->link, mld_host_key(made));
}

void mld_report_fixture::when_ticked_quietly(int ticks) {
  for (int i = 0; i < ticks; ++i) {
    br0->query_timer = 100;
    lan1->query_timer = 100;
    when_ticked();
  }
}

void mld_report_fixture::then_groups(const mld_interface *intr, const lines &expected) const {
  lines found;
  for (auto *group = list_first<mld_group>(&intr->groups.records); group != nullptr; group = list_after(group)) {
    found.push_back(group_line({.group = text(group->group),
                                .state = static_cast<int>(group->state),
                                .timer = group->group_timer,
                                .retransmit = group->retransmit_timer,
                                .queries = length(group->queries)}));
    for (const mld_source &slot : mld_sources(group)) {
      found.push_back(slot_line(text(slot.address), slot.source_timer, static_cast<int>(slot.forward)));
    }
  }
  EXPECT_EQ(found, expected);
}

void mld_report_fixture::then_hosts(const mld_interface *intr, const lines &expected) const {
  lines found;
  for (auto *host = list_first<mld_host>(&intr->hosts.records); host != nullptr; host = list_after(host)) {
    EXPECT_EQ(host->host_state, 2u);
    found.push_back(text(host->group) + " " + text(host->host) + " " + text(host->source));
  }
  EXPECT_EQ(found, expected);
}

lines together(std::initializer_list<lines> parts) {
  lines all;
  for (const lines &part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

std::string group_line(const group_row &row) {
  return row.group + ": state " + std::to_string(row.state) + ", timer " + std::to_string(row.timer) + ", retransmit " +
         std::to_string(row.retransmit) + ", queries " + std::to_string(row.queries);
}

std::string group_line(const char *group) { return group_line(group_row{.group = group}); }

std::string slot_line(const std::string &source, int timer, int forward) {
  return "  " + source + ": timer " + std::to_string(timer) + ", forward " + std::to_string(forward);
}

lines received(const std::string &sender, int ifindex, const std::string &type_line) {
  return {
      "recvmsg(mld)",
      "| ",
      "| ",
      "| ",
      logged_debug(read_data, "[PACKET] host      : " + log_text(sender)),
      logged_debug(read_data, "[PACKET] intr      : " + std::to_string(ifindex)),
      logged_debug(read_data, type_line),
  };
}

lines received_report(const std::string &sender, int ifindex, int records) {
  return together({received(sender, ifindex, "[PACKET] icmp6_type: ICMPV6_MLD2_REPORT"),
                   {logged_debug(report_handler, "[PACKET] ngrec     : " + std::to_string(records))}});
}

lines record_traced(const std::string &group, int sources, const std::string &type_name) {
  return {
      logged_debug(report_handler, "[PACKET] group     : " + log_text(group)),
      logged_debug(report_handler, "[PACKET] nsrcs     : " + std::to_string(sources)),
      logged_debug(report_handler, "[PACKET] grec_type : " + type_name),
  };
}

lines host_looked_up(const std::string &host, const std::string &source) {
  return {logged_debug(host_lookup, "host_address: " + log_text(host) + " source_address: " + log_text(source))};
}

lines host_recorded(const std::string &group, const std::string &host, const std::string &source) {
  return together({host_looked_up(host, source),
                   {
                       logged_debug(host_add, "list_add group:" + log_text(group)),
                       logged_debug(host_add, "list_add host:" + log_text(host)),
                       logged_debug(host_add, "list_add source:" + log_text(source)),
                   }});
}

lines all_sources_joined(const std::string &group, const lines &interfaces) {
  return together({{
                       "setsockopt(wan0, IPV6_ADD_MEMBERSHIP) group=" + group + " ifindex=2",
                       logged_debug(add, "setsockopt: IPV6_ADD_MEMBERSHIP"),
                   },
                   outputs_collected(add, interfaces),
                   {
                       entry_request("MRT6_ADD_MFC", "::", group, outputs_of(interfaces)),
                       logged_debug(add, "mcastgrp: " + log_text(group)),
                       logged_debug(add, "origin:   " + log_text("::")),
                       logged_debug(add, "setsockopt: MRT6_ADD_MFC"),
                   }});
}

lines source_joined(const std::string &group, const std::string &source, int block, const lines &interfaces) {
  return together({{
                       logged_debug(add_source, "MldBlock = " + std::to_string(block)),
                       source_request("MCAST_JOIN_SOURCE_GROUP", group, source),
                       logged_debug(add_source, "setsockopt MCAST_JOIN_SOURCE_GROUP"),
                   },
                   outputs_collected(add_source, interfaces),
                   {
                       entry_request("MRT6_ADD_MFC", source, group, outputs_of(interfaces)),
                       logged_debug(add_source, "setsockopt: MRT6_ADD_MFC"),
                   }});
}

lines left_upstream(const std::string &group, const lines &sources) {
  lines made{
      "setsockopt(wan0, IPV6_DROP_MEMBERSHIP) group=" + group + " ifindex=2",
      logged_debug(drop, "setsockopt: IPV6_DROP_MEMBERSHIP"),
  };
  for (const std::string &source : sources) {
    made.push_back(entry_request("MRT6_DEL_MFC", source, group, ""));
    made.push_back(logged_debug(drop, "setsockopt: MRT6_DEL_MFC"));
  }
  return made;
}

std::string source_request(const std::string &option, const std::string &group, const std::string &source) {
  return "setsockopt(wan0, " + option + ") group=" + group + " source=" + source + " ifindex=2";
}

std::string entry_request(const std::string &option, const std::string &origin, const std::string &group,
                          const std::string &outputs) {
  return "setsockopt(mld, " + option + ") origin=" + origin + " group=" + group + " parent=2 outputs={" + outputs + "}";
}

} // namespace scripted

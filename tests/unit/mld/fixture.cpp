#include "fixture.h"

#include "core/memory.h"
#include "mld/mld_group.h"
#include "mld/mld_host.h"

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

} // namespace

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
    keep(intr->hosts);
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
  for (auto *group = list_first<mld_group>(&intr->groups); group != nullptr; group = list_after(group)) {
    found.push_back(group_line(text(group->group), static_cast<int>(group->state), group->group_timer,
                               group->retransmit_timer, length(group->queries)));
    for (const mld_source &slot : mld_sources(group)) {
      found.push_back(slot_line(text(slot.address), slot.source_timer, static_cast<int>(slot.forward)));
    }
  }
  EXPECT_EQ(found, expected);
}

void mld_report_fixture::then_hosts(const mld_interface *intr, const lines &expected) const {
  lines found;
  for (auto *host = list_first<mld_host>(&intr->hosts); host != nullptr; host = list_after(host)) {
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

std::string group_line(const std::string &group, int state, int timer, int retransmit, int queries) {
  return group + ": state " + std::to_string(state) + ", timer " + std::to_string(timer) + ", retransmit " +
         std::to_string(retransmit) + ", queries " + std::to_string(queries);
}

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

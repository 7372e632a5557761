#include "status/network_tables.h"

#include "status/netlink_dump.h"

#include <algorithm>
#include <arpa/inet.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <string_view>

namespace {

void copy_name(interface_text &name, netlink_bytes payload) {
  const std::size_t length = std::min(payload.size(), name.size() - 1);
  std::memcpy(name.data(), payload.data(), length);
  name[length] = '\0';
}

bool is_text(netlink_bytes payload, std::string_view wanted) {
  return payload.size() >= wanted.size() && std::memcmp(payload.data(), wanted.data(), wanted.size()) == 0;
}

void copy_address(group_text &address, netlink_bytes payload) {
  in6_addr read;
  if (read_record(payload, read)) {
    inet_ntop(AF_INET6, &read, address.data(), INET6_ADDRSTRLEN);
  }
}

void read_querier(link_row &link, netlink_bytes querier) {
  netlink_attribute attribute;
  while (next_attribute(querier, attribute)) {
    if (attribute.type == BRIDGE_QUERIER_IPV6_ADDRESS) {
      copy_address(link.querier, attribute.payload);
    } else if (attribute.type == BRIDGE_QUERIER_IPV6_OTHER_TIMER) {
      link.querier_left_centiseconds = number_in<std::uint64_t>(attribute);
    }
  }
}

void read_bridge(link_row &link, netlink_bytes data) {
  netlink_attribute attribute;
  while (next_attribute(data, attribute)) {
    switch (attribute.type) {
    case IFLA_BR_MCAST_SNOOPING:
      link.snooping = number_in<std::uint8_t>(attribute);
      break;
    case IFLA_BR_MCAST_MLD_VERSION:
      link.mld_version = number_in<std::uint8_t>(attribute);
      break;
    case IFLA_BR_MCAST_QUERIER_INTVL:
      link.querier_total_centiseconds = number_in<std::uint64_t>(attribute);
      break;
    case IFLA_BR_MCAST_QUERIER_STATE:
      read_querier(link, attribute.payload);
      break;
    default:
      break;
    }
  }
}

void read_port(link_row &link, netlink_bytes data) {
  netlink_attribute attribute;
  while (next_attribute(data, attribute)) {
    if (attribute.type == IFLA_BRPORT_STATE) {
      link.port_state = number_in<std::uint8_t>(attribute);
    }
  }
}

// The kind comes before the data that it explains.
void read_link_info(link_row &link, netlink_bytes info, std::uint32_t master) {
  netlink_attribute attribute;
  while (next_attribute(info, attribute)) {
    if (attribute.type == IFLA_INFO_KIND) {
      link.is_bridge = is_text(attribute.payload, "bridge");
    } else if (attribute.type == IFLA_INFO_DATA && link.is_bridge) {
      read_bridge(link, attribute.payload);
    } else if (attribute.type == IFLA_INFO_SLAVE_KIND && is_text(attribute.payload, "bridge")) {
      link.bridge = master;
    } else if (attribute.type == IFLA_INFO_SLAVE_DATA && link.bridge != 0) {
      read_port(link, attribute.payload);
    }
  }
}

bool read_link(link_row &link, netlink_bytes payload) {
  ifinfomsg header;
  if (!take_record(payload, header)) {
    return false;
  }
  link = link_row{};
  link.index = static_cast<std::uint32_t>(header.ifi_index);
  link.flags = header.ifi_flags;
  std::uint32_t master = 0;
  netlink_attribute attribute;
  while (next_attribute(payload, attribute)) {
    if (attribute.type == IFLA_IFNAME) {
      copy_name(link.name, attribute.payload);
    } else if (attribute.type == IFLA_ADDRESS) {
      read_record(attribute.payload, link.mac);
    } else if (attribute.type == IFLA_MASTER) {
      master = number_in<std::uint32_t>(attribute);
    } else if (attribute.type == IFLA_LINKINFO) {
      read_link_info(link, attribute.payload, master);
    }
  }
  return true;
}

bool read_link_local(link_local_row &row, netlink_bytes payload) {
  constexpr double centiseconds_per_second = 100.0;
  ifaddrmsg header;
  if (!take_record(payload, header) || header.ifa_family != AF_INET6 || header.ifa_scope != RT_SCOPE_LINK) {
    return false;
  }
  row = link_local_row{};
  row.index = header.ifa_index;
  std::uint32_t flags = header.ifa_flags;
  netlink_attribute attribute;
  while (next_attribute(payload, attribute)) {
    if (attribute.type == IFA_ADDRESS) {
      copy_address(row.address, attribute.payload);
    } else if (attribute.type == IFA_FLAGS) {
      flags = number_in<std::uint32_t>(attribute);
    } else if (attribute.type == IFA_CACHEINFO) {
      row.created_at_seconds = number_in<ifa_cacheinfo>(attribute).cstamp / centiseconds_per_second;
    }
  }
  row.is_usable = (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0;
  return true;
}

void add_bridge_group(network_tables &tables, std::uint32_t bridge, netlink_bytes entry) {
  netlink_attribute attribute;
  while (next_attribute(entry, attribute)) {
    br_mdb_entry read;
    if (attribute.type == MDBA_MDB_ENTRY_INFO && read_record(attribute.payload, read) &&
        read.addr.proto == htons(ETH_P_IPV6)) {
      bridge_group_row row{bridge, read.ifindex, {}};
      inet_ntop(AF_INET6, &read.addr.u.ip6, row.group.data(), INET6_ADDRSTRLEN);
      add_row(tables.groups, row);
    }
  }
}

void add_router_ports(network_tables &tables, std::uint32_t bridge, netlink_bytes ports) {
  netlink_attribute port;
  while (next_attribute(ports, port)) {
    if (port.type == MDBA_ROUTER_PORT) {
      add_row(tables.routers, router_port_row{bridge, number_in<std::uint32_t>(port)});
    }
  }
}

void add_bridge_groups(network_tables &tables, netlink_bytes payload) {
  br_port_msg header;
  if (!take_record(payload, header)) {
    return;
  }
  netlink_attribute attribute;
  while (next_attribute(payload, attribute)) {
    if (attribute.type == MDBA_ROUTER) {
      add_router_ports(tables, header.ifindex, attribute.payload);
    }
    netlink_bytes entries = attribute.payload;
    netlink_attribute entry;
    while (attribute.type == MDBA_MDB && next_attribute(entries, entry)) {
      add_bridge_group(tables, header.ifindex, entry.payload);
    }
  }
}

} // namespace

void parse_links(rows_of<link_row> &links, netlink_bytes messages) {
  netlink_message message;
  while (next_message(messages, message)) {
    link_row link;
    if (message.type == RTM_NEWLINK && read_link(link, message.payload)) {
      add_row(links, link);
    }
  }
}

void parse_link_locals(rows_of<link_local_row> &addresses, netlink_bytes messages) {
  netlink_message message;
  while (next_message(messages, message)) {
    link_local_row row;
    if (message.type == RTM_NEWADDR && read_link_local(row, message.payload)) {
      add_row(addresses, row);
    }
  }
}

void parse_bridge_groups(network_tables &tables, netlink_bytes messages) {
  netlink_message message;
  while (next_message(messages, message)) {
    // The kernel answers RTM_GETMDB with messages of that very type.
    if (message.type == RTM_GETMDB || message.type == RTM_NEWMDB) {
      add_bridge_groups(tables, message.payload);
    }
  }
}

void read_network_tables(network_tables &tables) {
  clear_rows(tables.links);
  clear_rows(tables.addresses);
  clear_rows(tables.groups);
  clear_rows(tables.routers);
  text messages;
  tables.has_links = read_netlink_dump(messages, RTM_GETLINK, AF_UNSPEC);
  parse_links(tables.links, bytes_of(messages));
  tables.has_links = read_netlink_dump(messages, RTM_GETADDR, AF_INET6) && tables.has_links;
  parse_link_locals(tables.addresses, bytes_of(messages));
  tables.has_groups = read_netlink_dump(messages, RTM_GETMDB, AF_BRIDGE);
  parse_bridge_groups(tables, bytes_of(messages));
  free_rows(messages);
}

void free_network_tables(network_tables &tables) {
  free_rows(tables.links);
  free_rows(tables.addresses);
  free_rows(tables.groups);
  free_rows(tables.routers);
}

const link_row *find_link(const network_tables &tables, const char *name) {
  for (const link_row &link : all_rows(tables.links)) {
    if (std::strcmp(link.name.data(), name) == 0) {
      return &link;
    }
  }
  return nullptr;
}

const link_row *find_link(const network_tables &tables, std::uint32_t index) {
  for (const link_row &link : all_rows(tables.links)) {
    if (link.index == index) {
      return &link;
    }
  }
  return nullptr;
}

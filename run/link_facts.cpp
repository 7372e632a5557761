#include "run/link_facts.h"

#include "run/netlink_exchange.h"

#include <algorithm>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace {

// Cut where there is no room; always ends in NUL.
template <std::size_t size> void read_text(netlink_bytes payload, std::array<char, size> &text) {
  text = {};
  std::memcpy(text.data(), payload.data(), std::min(payload.size(), size - 1));
}

void read_port_state(netlink_bytes settings, link_facts &facts) {
  for (netlink_attribute setting; next_attribute(settings, setting);) {
    if (setting.type == IFLA_BRPORT_STATE) {
      read_record(setting.payload, facts.port_state);
    }
  }
}

// What a link is a port of stands in front of the settings that it has there.
void read_details(netlink_bytes details, link_facts &facts) {
  std::array<char, 16> port_of{};
  for (netlink_attribute detail; next_attribute(details, detail);) {
    if (detail.type == IFLA_INFO_KIND) {
      read_text(detail.payload, facts.kind);
    } else if (detail.type == IFLA_INFO_SLAVE_KIND) {
      read_text(detail.payload, port_of);
    } else if (detail.type == IFLA_INFO_SLAVE_DATA && std::strcmp(port_of.data(), "bridge") == 0) {
      read_port_state(detail.payload, facts);
    }
  }
}

void read_attribute(const netlink_attribute &attribute, link_facts &facts) {
  switch (attribute.type) {
  case IFLA_IFNAME:
    return read_text(attribute.payload, facts.name);
  case IFLA_IFALIAS:
    return read_text(attribute.payload, facts.alias);
  case IFLA_LINKINFO:
    return read_details(attribute.payload, facts);
  case IFLA_MTU:
    read_record(attribute.payload, facts.mtu);
    return;
  case IFLA_MASTER:
    read_record(attribute.payload, facts.master);
    return;
  case IFLA_ADDRESS:
    read_record(attribute.payload, facts.address);
    return;
  default:
    return;
  }
}

void begin_question(netlink_request &question, std::uint32_t index) {
  ifinfomsg header{};
  header.ifi_family = AF_UNSPEC;
  header.ifi_index = static_cast<int>(index);
  begin_request(question, RTM_GETLINK, 0);
  append_record(question, header);
  append_number(question, IFLA_EXT_MASK, std::uint32_t{RTEXT_FILTER_SKIP_STATS});
}

int ask(int socket, netlink_request &question, link_facts &facts) {
  bool is_answered = false;
  const int reason = exchange(socket, question, [&](const netlink_message &message) {
    is_answered = message.type == RTM_NEWLINK && read_link_facts(message.payload, facts);
  });
  return reason != 0 || is_answered ? reason : ENODEV;
}

} // namespace

bool read_link_facts(netlink_bytes payload, link_facts &facts) {
  ifinfomsg header;
  if (!take_record(payload, header)) {
    return false;
  }
  facts = {};
  facts.index = static_cast<std::uint32_t>(header.ifi_index);
  facts.hardware = header.ifi_type;
  facts.flags = header.ifi_flags;
  for (netlink_attribute attribute; next_attribute(payload, attribute);) {
    read_attribute(attribute, facts);
  }
  return true;
}

int ask_link(int socket, const char *name, link_facts &facts) {
  netlink_request question;
  begin_question(question, 0);
  append_text(question, IFLA_IFNAME, name);
  return ask(socket, question, facts);
}

int ask_link(int socket, std::uint32_t index, link_facts &facts) {
  netlink_request question;
  begin_question(question, index);
  return ask(socket, question, facts);
}

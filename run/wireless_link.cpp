#include "run/wireless_link.h"

#include <linux/genetlink.h>
#include <linux/nl80211.h>
#include <unistd.h>

namespace {

constexpr std::uint16_t no_family = 0;

void begin_generic_request(netlink_request &request, std::uint16_t family, std::uint8_t command) {
  constexpr std::uint8_t version = 1;
  begin_request(request, family, 0);
  append_record(request, genlmsghdr{command, version, 0});
}

template <typename number> void read_number(netlink_bytes payload, std::uint16_t type, number &found) {
  genlmsghdr header;
  take_record(payload, header);
  for (netlink_attribute attribute; next_attribute(payload, attribute);) {
    if (attribute.type == type) {
      read_record(attribute.payload, found);
    }
  }
}

std::uint32_t ask_type(int socket, std::uint32_t index) {
  netlink_request request;
  std::uint16_t family = no_family;
  request_wireless_family(request);
  exchange(socket, request, [&](const netlink_message &message) { read_wireless_family(message.payload, family); });
  std::uint32_t type = NL80211_IFTYPE_UNSPECIFIED;
  if (family != no_family) {
    request_wireless_type(request, family, index);
    exchange(socket, request, [&](const netlink_message &message) { read_wireless_type(message.payload, type); });
  }
  return type;
}

} // namespace

bool is_wireless_station(std::uint32_t index) {
  const int socket = open_netlink(NETLINK_GENERIC);
  if (socket < 0) {
    return false;
  }
  const std::uint32_t type = ask_type(socket, index);
  close(socket);
  return type == NL80211_IFTYPE_STATION || type == NL80211_IFTYPE_P2P_CLIENT;
}

void request_wireless_family(netlink_request &request) {
  begin_generic_request(request, GENL_ID_CTRL, CTRL_CMD_GETFAMILY);
  append_text(request, CTRL_ATTR_FAMILY_NAME, NL80211_GENL_NAME);
}

void read_wireless_family(netlink_bytes payload, std::uint16_t &family) {
  read_number(payload, CTRL_ATTR_FAMILY_ID, family);
}

void request_wireless_type(netlink_request &request, std::uint16_t family, std::uint32_t index) {
  begin_generic_request(request, family, NL80211_CMD_GET_INTERFACE);
  append_number(request, NL80211_ATTR_IFINDEX, index);
}

void read_wireless_type(netlink_bytes payload, std::uint32_t &type) { read_number(payload, NL80211_ATTR_IFTYPE, type); }

// Wi-Fi interfaces, by generic netlink (linux/genetlink.h, linux/nl80211.h).
#pragma once

#include "run/netlink_exchange.h"

#include <cstdint>

// Whether the interface is a station of somebody's access point. False where the kernel knows no Wi-Fi.
bool is_wireless_station(std::uint32_t index);

// The request for the number of the family "nl80211", and its answer. `family` stays as it is if the answer has none.
void request_wireless_family(netlink_request &request);
void read_wireless_family(netlink_bytes payload, std::uint16_t &family);

// The request for what an interface is, NL80211_IFTYPE_..., and its answer.
void request_wireless_type(netlink_request &request, std::uint16_t family, std::uint32_t index);
void read_wireless_type(netlink_bytes payload, std::uint32_t &type);

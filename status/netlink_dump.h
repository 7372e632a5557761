// Whole dumps of the kernel's tables (rtnetlink), in the calling process's network namespace.
#pragma once

#include "assist/netlink_reader.h"
#include "status/text.h"

// RTM_GETLINK with AF_UNSPEC, RTM_GETADDR with AF_INET6, RTM_GETMDB with AF_BRIDGE. `messages` (emptied first) gets
// every message of the answer. Returns false with errno when the kernel could not be asked.
bool read_netlink_dump(text &messages, std::uint16_t type, std::uint8_t family);

netlink_bytes bytes_of(const text &messages);

// The attribute's payload as a number; 0 if it is too short.
template <typename number> number number_in(const netlink_attribute &attribute) {
  number value{};
  read_record(attribute.payload, value);
  return value;
}

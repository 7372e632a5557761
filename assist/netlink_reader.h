// Bounded reading of netlink bytes (linux/netlink.h, linux/rtnetlink.h). Each function cuts one item off the front of
// `rest` and hands out exactly its bytes; a length that does not fit ends the reading, so callers need no checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

using netlink_bytes = std::span<const std::byte>;

struct netlink_message {
  std::uint16_t type; // RTM_NEWLINK, ...
  netlink_bytes payload;
};

struct netlink_attribute {
  std::uint16_t type; // without the flags NLA_F_NESTED and NLA_F_NET_BYTEORDER
  netlink_bytes payload;
};

// False at the end, or where the rest is not a whole item; `rest` is empty then. All numbers are in host byte order.
bool next_message(netlink_bytes &rest, netlink_message &message);
bool next_attribute(netlink_bytes &rest, netlink_attribute &attribute);
bool next_hop_index(netlink_bytes &rest, std::uint32_t &interface_index); // entries of RTA_MULTIPATH

// Copies a fixed record from the front of `bytes`. False, and `record` is untouched, if there are too few.
template <typename type> bool read_record(netlink_bytes bytes, type &record) {
  if (bytes.size() < sizeof(record)) {
    return false;
  }
  std::memcpy(&record, bytes.data(), sizeof(record));
  return true;
}

// The same, and moves `bytes` behind the record and its padding, where the attributes start.
bool skip_record(netlink_bytes &bytes, std::size_t record_size);

template <typename type> bool take_record(netlink_bytes &bytes, type &record) {
  return read_record(bytes, record) && skip_record(bytes, sizeof(record));
}

#include "assist/netlink_reader.h"

#include <algorithm>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

namespace {

constexpr std::size_t alignment = NLMSG_ALIGNTO;
static_assert(alignment == NLA_ALIGNTO && alignment == RTNH_ALIGNTO);

// The last item of a buffer may lack its padding.
void skip_padded(netlink_bytes &bytes, std::size_t length) {
  const std::size_t padded = (length + alignment - 1) / alignment * alignment;
  bytes = bytes.subspan(std::min(padded, bytes.size()));
}

// Every netlink item starts with a header with the length of header and payload together. `length_of` reads it.
template <typename header_type, typename length_reader>
bool cut_item(netlink_bytes &rest, header_type &header, netlink_bytes &payload, length_reader length_of) {
  if (!read_record(rest, header)) {
    rest = {};
    return false;
  }
  const std::size_t length = length_of(header);
  if (length < sizeof(header) || length > rest.size()) {
    rest = {};
    return false;
  }
  payload = rest.first(length).subspan(sizeof(header));
  skip_padded(rest, length);
  return true;
}

} // namespace

bool next_message(netlink_bytes &rest, netlink_message &message) {
  nlmsghdr header;
  if (!cut_item(rest, header, message.payload, [](const nlmsghdr &h) -> std::size_t { return h.nlmsg_len; })) {
    return false;
  }
  message.type = header.nlmsg_type;
  return true;
}

bool next_attribute(netlink_bytes &rest, netlink_attribute &attribute) {
  nlattr header;
  if (!cut_item(rest, header, attribute.payload, [](const nlattr &h) -> std::size_t { return h.nla_len; })) {
    return false;
  }
  attribute.type = static_cast<std::uint16_t>(header.nla_type & NLA_TYPE_MASK);
  return true;
}

bool next_hop_index(netlink_bytes &rest, std::uint32_t &interface_index) {
  rtnexthop header;
  netlink_bytes attributes;
  if (!cut_item(rest, header, attributes, [](const rtnexthop &h) -> std::size_t { return h.rtnh_len; })) {
    return false;
  }
  interface_index = static_cast<std::uint32_t>(header.rtnh_ifindex);
  return true;
}

bool skip_record(netlink_bytes &bytes, std::size_t record_size) {
  if (bytes.size() < record_size) {
    return false;
  }
  skip_padded(bytes, record_size);
  return true;
}

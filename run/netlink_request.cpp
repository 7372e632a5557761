#include "run/netlink_request.h"

#include <cstring>

namespace {

constexpr std::size_t padded(std::size_t length) {
  constexpr std::size_t alignment = NLMSG_ALIGNTO;
  static_assert(alignment == NLA_ALIGNTO);
  return (length + alignment - 1) / alignment * alignment;
}

} // namespace

void begin_request(netlink_request &request, std::uint16_t type, std::uint16_t flags) {
  request = {};
  nlmsghdr header{};
  header.nlmsg_type = type;
  header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
  append_record(request, header);
}

void append_bytes(netlink_request &request, const void *bytes, std::size_t length) {
  if (padded(length) > request.bytes.size() - request.length) {
    request.is_too_long = true;
    return;
  }
  std::memcpy(request.bytes.data() + request.length, bytes, length);
  request.length += padded(length);
}

void append_attribute(netlink_request &request, std::uint16_t type, const void *bytes, std::size_t length) {
  const nlattr header{static_cast<std::uint16_t>(sizeof(nlattr) + length), type};
  append_record(request, header);
  append_bytes(request, bytes, length);
}

void append_text(netlink_request &request, std::uint16_t type, const char *text) {
  append_attribute(request, type, text, std::strlen(text) + 1);
}

std::size_t open_nest(netlink_request &request, std::uint16_t type) {
  const std::size_t place = request.length;
  append_record(request, nlattr{0, static_cast<std::uint16_t>(type | NLA_F_NESTED)});
  return place;
}

void close_nest(netlink_request &request, std::size_t place) {
  const auto length = static_cast<std::uint16_t>(request.length - place);
  if (!request.is_too_long) {
    std::memcpy(request.bytes.data() + place + offsetof(nlattr, nla_len), &length, sizeof(length));
  }
}

std::span<const std::byte> finish_request(netlink_request &request) {
  if (request.is_too_long) {
    return {};
  }
  const auto length = static_cast<std::uint32_t>(request.length);
  std::memcpy(request.bytes.data() + offsetof(nlmsghdr, nlmsg_len), &length, sizeof(length));
  return {request.bytes.data(), request.length};
}

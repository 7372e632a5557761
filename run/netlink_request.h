// Builds one netlink request (linux/netlink.h). All numbers are in host byte order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <linux/netlink.h>
#include <span>

// The longest request here makes a pair of links and takes less than 200 bytes.
inline constexpr std::size_t LONGEST_NETLINK_REQUEST = 512;

struct netlink_request {
  alignas(NLMSG_ALIGNTO) std::array<std::byte, LONGEST_NETLINK_REQUEST> bytes;
  std::size_t length;
  bool is_too_long; // something did not fit; the request is not to be sent
};

// Starts a request that the kernel acknowledges; `flags` come in addition (NLM_F_CREATE, NLM_F_DUMP, ...).
void begin_request(netlink_request &request, std::uint16_t type, std::uint16_t flags);

// Append bytes and padding, with or without an attribute's header.
void append_bytes(netlink_request &request, const void *bytes, std::size_t length);
void append_attribute(netlink_request &request, std::uint16_t type, const void *bytes, std::size_t length);

template <typename record> void append_record(netlink_request &request, const record &value) {
  append_bytes(request, &value, sizeof(value));
}

template <typename number> void append_number(netlink_request &request, std::uint16_t type, number value) {
  append_attribute(request, type, &value, sizeof(value));
}

// With the NUL at its end, as the kernel expects a text.
void append_text(netlink_request &request, std::uint16_t type, const char *text);

// Attributes between the two lie in one of `type`. `open_nest` returns what `close_nest` needs.
std::size_t open_nest(netlink_request &request, std::uint16_t type);
void close_nest(netlink_request &request, std::size_t place);

// The finished request; empty if something did not fit.
std::span<const std::byte> finish_request(netlink_request &request);

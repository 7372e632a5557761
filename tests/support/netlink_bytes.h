// Builds netlink bytes item by item.
#pragma once

#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <string>
#include <vector>

using byte_vector = std::vector<std::byte>;

inline void pad(byte_vector &bytes) {
  bytes.resize((bytes.size() + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO);
}

template <typename record> byte_vector bytes_of(const record &value) {
  byte_vector bytes(sizeof(value));
  std::memcpy(bytes.data(), &value, sizeof(value));
  return bytes;
}

inline byte_vector operator+(byte_vector front, const byte_vector &back) {
  pad(front);
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

inline byte_vector attribute(int type, const byte_vector &payload) {
  const nlattr header{static_cast<std::uint16_t>(sizeof(nlattr) + payload.size()), static_cast<std::uint16_t>(type)};
  byte_vector bytes = bytes_of(header) + payload;
  pad(bytes);
  return bytes;
}

inline byte_vector message(int type, const byte_vector &payload) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + payload.size());
  header.nlmsg_type = static_cast<std::uint16_t>(type);
  return bytes_of(header) + payload;
}

inline byte_vector error_message(int reason) {
  nlmsgerr error{};
  error.error = -reason;
  return message(NLMSG_ERROR, bytes_of(error));
}

inline byte_vector text_bytes(const std::string &text) {
  byte_vector bytes(text.size() + 1);
  std::memcpy(bytes.data(), text.data(), text.size());
  return bytes;
}

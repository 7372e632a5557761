// Builds MLD messages as hosts and other queriers send them.
#pragma once

#include "assist/mld_message.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using mld_bytes = std::vector<std::uint8_t>;

inline ipv6_address address(const std::string &text) {
  ipv6_address parsed{};
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), parsed.data()), 1) << text;
  return parsed;
}

inline mld_bytes operator+(mld_bytes front, const mld_bytes &back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

inline mld_bytes u16(std::size_t value) {
  return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

inline mld_bytes address_bytes(const std::string &text) {
  const ipv6_address parsed = address(text);
  return {parsed.begin(), parsed.end()};
}

inline mld_bytes record_bytes(mld_record_type kind, const std::string &group,
                              const std::vector<std::string> &sources = {}) {
  mld_bytes bytes = mld_bytes{kind, 0} + u16(sources.size()) + address_bytes(group);
  for (const std::string &source : sources) {
    bytes = bytes + address_bytes(source);
  }
  return bytes;
}

inline mld_bytes report_bytes(const std::vector<mld_bytes> &records) {
  mld_bytes bytes = mld_bytes{ICMPV6_MLD2_REPORT, 0, 0, 0, 0, 0} + u16(records.size());
  for (const mld_bytes &record : records) {
    bytes = bytes + record;
  }
  return bytes;
}

// MLDv1 query, report or done.
inline mld_bytes v1_bytes(std::uint8_t type, const std::string &group, std::size_t max_response_ms = 0) {
  return mld_bytes{type, 0, 0, 0} + u16(max_response_ms) + u16(0) + address_bytes(group);
}

inline mld_bytes query_bytes(const std::string &group, std::size_t response_code = 1000,
                             const std::vector<std::string> &sources = {}) {
  mld_bytes bytes = v1_bytes(ICMPV6_MGM_QUERY, group, response_code) + mld_bytes{2, 125} + u16(sources.size());
  for (const std::string &source : sources) {
    bytes = bytes + address_bytes(source);
  }
  return bytes;
}

// As it would lie in the receive buffer.
inline mld_message message_of(const mld_bytes &bytes) {
  mld_message message{};
  message.length = std::min(bytes.size(), message.bytes.size());
  std::copy_n(bytes.begin(), message.length, message.bytes.begin());
  return message;
}

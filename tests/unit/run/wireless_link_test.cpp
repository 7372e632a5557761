#include "run/wireless_link.h"

#include "tests/support/netlink_bytes.h"

#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/nl80211.h>

namespace {

constexpr std::uint16_t family_number = 28;

byte_vector sent(netlink_request &request) {
  const std::span<const std::byte> bytes = finish_request(request);
  return {bytes.begin(), bytes.end()};
}

byte_vector request_of(int family, std::uint8_t command, const byte_vector &attributes) {
  byte_vector bytes = message(family, bytes_of(genlmsghdr{command, 1, 0}) + attributes);
  constexpr std::uint16_t flags = NLM_F_REQUEST | NLM_F_ACK;
  std::memcpy(bytes.data() + offsetof(nlmsghdr, nlmsg_flags), &flags, sizeof(flags));
  return bytes;
}

} // namespace

TEST(wireless_link, family_is_asked_for_by_name) {
  netlink_request request;
  request_wireless_family(request);
  EXPECT_EQ(sent(request),
            request_of(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, attribute(CTRL_ATTR_FAMILY_NAME, text_bytes("nl80211"))));
}

TEST(wireless_link, number_of_the_family_is_read) {
  std::uint16_t family = 0;
  read_wireless_family(bytes_of(genlmsghdr{CTRL_CMD_NEWFAMILY, 2, 0}) +
                           attribute(CTRL_ATTR_FAMILY_NAME, text_bytes("nl80211")) +
                           attribute(CTRL_ATTR_FAMILY_ID, bytes_of(family_number)),
                       family);
  EXPECT_EQ(family, family_number);
}

TEST(wireless_link, type_is_asked_for_by_the_interfaces_index) {
  netlink_request request;
  request_wireless_type(request, family_number, 9);
  EXPECT_EQ(sent(request), request_of(family_number, NL80211_CMD_GET_INTERFACE,
                                      attribute(NL80211_ATTR_IFINDEX, bytes_of(std::uint32_t{9}))));
}

TEST(wireless_link, type_is_read_and_a_short_answer_tells_nothing) {
  std::uint32_t type = 0;
  const byte_vector answer = bytes_of(genlmsghdr{NL80211_CMD_NEW_INTERFACE, 1, 0}) +
                             attribute(NL80211_ATTR_IFINDEX, bytes_of(std::uint32_t{9})) +
                             attribute(NL80211_ATTR_IFTYPE, bytes_of(std::uint32_t{NL80211_IFTYPE_STATION}));
  read_wireless_type(netlink_bytes{answer}.first(sizeof(genlmsghdr) + 2), type);
  EXPECT_EQ(type, 0U);
  read_wireless_type(answer, type);
  EXPECT_EQ(type, std::uint32_t{NL80211_IFTYPE_STATION});
}

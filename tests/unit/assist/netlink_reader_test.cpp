#include "assist/netlink_reader.h"

#include "netlink_bytes.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <linux/rtnetlink.h>

namespace {

// Cuts all attributes; bytes live on the heap at their exact size, so that the sanitizers see any read beyond.
std::vector<int> attribute_types(const byte_vector &bytes) {
  std::vector<int> types;
  netlink_bytes rest{bytes};
  for (netlink_attribute found; next_attribute(rest, found);) {
    types.push_back(found.type);
  }
  EXPECT_TRUE(rest.empty());
  return types;
}

byte_vector attribute_header(std::uint16_t length, std::uint16_t type) { return bytes_of(nlattr{length, type}); }

} // namespace

TEST(netlink_reader, messages_are_cut_one_by_one) {
  const byte_vector bytes = message(7, text_bytes("one")) + message(8, {});
  netlink_bytes rest{bytes};
  netlink_message found;
  ASSERT_TRUE(next_message(rest, found));
  EXPECT_EQ(found.type, 7);
  EXPECT_EQ(found.payload.size(), 4U);
  EXPECT_EQ(std::memcmp(found.payload.data(), "one", 4), 0);
  ASSERT_TRUE(next_message(rest, found));
  EXPECT_EQ(found.type, 8);
  EXPECT_TRUE(found.payload.empty());
  EXPECT_FALSE(next_message(rest, found));
}

TEST(netlink_reader, message_longer_than_its_buffer_is_not_read) {
  byte_vector bytes = message(7, text_bytes("one"));
  bytes.pop_back();
  netlink_bytes rest{bytes};
  netlink_message found;
  EXPECT_FALSE(next_message(rest, found));
  EXPECT_TRUE(rest.empty());
}

TEST(netlink_reader, length_below_the_header_ends_the_reading) {
  EXPECT_EQ(attribute_types(attribute_header(0, 1) + attribute(2, {})), std::vector<int>{});
  EXPECT_EQ(attribute_types(attribute_header(3, 1) + attribute(2, {})), std::vector<int>{});
  EXPECT_EQ(attribute_types(attribute_header(4, 1) + attribute(2, {})), (std::vector<int>{1, 2}));
}

TEST(netlink_reader, length_beyond_the_end_ends_the_reading) {
  EXPECT_EQ(attribute_types(attribute(1, bytes_of(5)) + attribute_header(0xffff, 2)), std::vector<int>{1});
  EXPECT_EQ(attribute_types(attribute(1, bytes_of(5)) + attribute_header(5, 2)), std::vector<int>{1});
}

TEST(netlink_reader, last_attribute_may_lack_its_padding) {
  byte_vector bytes = attribute(1, {}) + attribute_header(5, 2);
  bytes.push_back(std::byte{9});
  EXPECT_EQ(attribute_types(bytes), (std::vector<int>{1, 2}));
}

TEST(netlink_reader, half_a_header_is_not_an_attribute) {
  EXPECT_EQ(attribute_types(byte_vector(3)), std::vector<int>{});
}

TEST(netlink_reader, flags_are_not_part_of_an_attribute_type) {
  EXPECT_EQ(attribute_types(attribute(9 | NLA_F_NESTED | NLA_F_NET_BYTEORDER, {})), std::vector<int>{9});
}

TEST(netlink_reader, next_hops_are_cut_with_their_attributes) {
  byte_vector first = hop(3);
  const std::uint16_t length = 16;
  std::memcpy(first.data() + offsetof(rtnexthop, rtnh_len), &length, sizeof length);
  const byte_vector bytes = (first + attribute(RTA_GATEWAY, bytes_of(1))) + hop(5);
  netlink_bytes rest{bytes};
  std::uint32_t index = 0;
  ASSERT_TRUE(next_hop_index(rest, index));
  EXPECT_EQ(index, 3U);
  ASSERT_TRUE(next_hop_index(rest, index));
  EXPECT_EQ(index, 5U);
  EXPECT_FALSE(next_hop_index(rest, index));
}

TEST(netlink_reader, record_that_is_cut_short_is_left_alone) {
  const byte_vector bytes(3);
  std::uint32_t number = 77;
  EXPECT_FALSE(read_record(netlink_bytes{bytes}, number));
  EXPECT_EQ(number, 77U);
}

#include "core/address.h"

#include "tests/support/proxy_fixture.h"

#include <cstring>

namespace {

using scripted::address;

TEST(address_text, log_lines_show_eight_groups_of_four_digits) {
  EXPECT_STREQ(ADDRESS_TEXT(In6AddrAny), "0000:0000:0000:0000:0000:0000:0000:0000");
  EXPECT_STREQ(ADDRESS_TEXT(address("ff0e::1:abcd")), "ff0e:0000:0000:0000:0000:0000:0001:abcd");
  EXPECT_STREQ(ADDRESS_TEXT(address("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")),
               "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST(address_text, two_ipv6_texts_fit_in_one_line) {
  std::array<char, 100> line;
  std::snprintf(line.data(), line.size(), "%s %s", ADDRESS_TEXT(address("ff0e::1")), ADDRESS_TEXT(address("::2")));
  EXPECT_STREQ(line.data(), "ff0e:0000:0000:0000:0000:0000:0000:0001 0000:0000:0000:0000:0000:0000:0000:0002");
}

TEST(address_text, ipv4_word_is_written_from_its_most_significant_octet) {
  const std::uint32_t all_hosts = 0xe0000001;
  const std::uint32_t longest = 0xffffffff;
  const std::uint32_t distinct = 0x01020304;
  EXPECT_STREQ(my_inet_ntoa(&all_hosts), "224.0.0.1");
  EXPECT_STREQ(my_inet_ntoa(&longest), "255.255.255.255");
  EXPECT_STREQ(my_inet_ntoa(&distinct), "1.2.3.4");
}

TEST(address_text, next_ipv4_text_overwrites_the_one_before) {
  const std::uint32_t one = 0x0a000001;
  const std::uint32_t other = 0xc0000263;
  const char *first = my_inet_ntoa(&one);
  const char *second = my_inet_ntoa(&other);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first, MyInAddr.data());
  EXPECT_STREQ(first, "192.0.2.99");
}

TEST(address, only_groups_of_link_local_scope_and_no_flags_count_as_link_local) {
  EXPECT_TRUE(is_link_local_group(address("ff02::1")));
  EXPECT_TRUE(is_link_local_group(address("ff02:ffff::1")));
  EXPECT_FALSE(is_link_local_group(address("ff12::1")));
  EXPECT_FALSE(is_link_local_group(address("ff01::1")));
  EXPECT_FALSE(is_link_local_group(address("ff05::2")));
  EXPECT_FALSE(is_link_local_group(address("fe02::1")));
  EXPECT_FALSE(is_link_local_group(In6AddrAny));
}

TEST(address, conversion_to_the_kernel_record_and_back_keeps_every_byte) {
  const ipv6_address original = address("102:304:506:708:90a:b0c:d0e:f10");
  const in6_addr converted = to_in6_addr(original);
  EXPECT_EQ(std::memcmp(&converted, original.data(), original.size()), 0);
  EXPECT_EQ(from_in6_addr(converted), original);
}

} // namespace

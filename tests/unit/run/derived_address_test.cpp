#include "run/derived_address.h"

#include <gtest/gtest.h>

namespace {

const ether_address card{0x00, 0x00, 0x5e, 0x00, 0x53, 0x01};

bool is_local_unicast(const ether_address &address) { return (address[0] & 3) == 2; }

} // namespace

TEST(derived_address, it_is_the_same_at_every_start) {
  EXPECT_EQ(derive_inner_address(card, "br0", 0), derive_inner_address(card, "br0", 0));
}

TEST(derived_address, it_is_a_local_unicast_address_of_the_same_maker) {
  const ether_address derived = derive_inner_address(card, "br0", 0);
  EXPECT_TRUE(is_local_unicast(derived));
  EXPECT_EQ(derived[1], card[1]);
  EXPECT_EQ(derived[2], card[2]);
}

TEST(derived_address, networks_and_attempts_get_addresses_of_their_own) {
  EXPECT_NE(derive_inner_address(card, "br0", 0), derive_inner_address(card, "br1", 0));
  EXPECT_NE(derive_inner_address(card, "br0", 0), derive_inner_address(card, "br0", 1));
}

// A bridge often has a local address already, which setting the bit does not change.
TEST(derived_address, it_differs_from_a_local_address_it_is_made_from) {
  const ether_address local{0x02, 0, 0, 0, 0x01, 0xfe};
  for (const char *purpose : {"", "wan0", "eth0.2", "br-lan"}) {
    EXPECT_NE(derive_inner_address(local, purpose, 0), local) << purpose;
  }
}

TEST(derived_address, outer_end_has_the_highest_first_byte) {
  const ether_address outer = derive_outer_address(derive_inner_address(card, "br0", 0));
  EXPECT_EQ(outer[0], 0xfe);
  EXPECT_TRUE(is_local_unicast(outer));
}

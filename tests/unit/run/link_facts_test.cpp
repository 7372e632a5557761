#include "run/link_facts.h"

#include "tests/support/netlink_bytes.h"

#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>

namespace {

const ether_address address{2, 0, 0, 1, 2, 3};

byte_vector port_settings(std::uint8_t state) { return attribute(IFLA_BRPORT_STATE, bytes_of(state)); }

byte_vector payload_of(const byte_vector &details) {
  ifinfomsg header{};
  header.ifi_type = ARPHRD_ETHER;
  header.ifi_index = 140;
  header.ifi_flags = IFF_UP;
  return bytes_of(header) + attribute(IFLA_IFNAME, text_bytes("br-lan.100")) +
         attribute(IFLA_MTU, bytes_of(std::uint32_t{1492})) + attribute(IFLA_MASTER, bytes_of(std::uint32_t{9})) +
         attribute(IFLA_ADDRESS, bytes_of(address)) + attribute(IFLA_IFALIAS, text_bytes("a text")) +
         attribute(IFLA_LINKINFO | NLA_F_NESTED, details);
}

std::string text_of(const auto &text) { return text.data(); }

} // namespace

TEST(link_facts, everything_that_is_told_is_read) {
  link_facts facts;
  ASSERT_TRUE(read_link_facts(payload_of(attribute(IFLA_INFO_KIND, text_bytes("bridge"))), facts));
  EXPECT_EQ(facts.index, 140U);
  EXPECT_EQ(text_of(facts.name), "br-lan.100");
  EXPECT_EQ(facts.hardware, ARPHRD_ETHER);
  EXPECT_EQ(facts.flags, unsigned{IFF_UP});
  EXPECT_EQ(facts.mtu, 1492U);
  EXPECT_EQ(facts.master, 9U);
  EXPECT_EQ(facts.address, address);
  EXPECT_EQ(text_of(facts.alias), "a text");
  EXPECT_EQ(text_of(facts.kind), "bridge");
}

TEST(link_facts, state_of_a_bridges_port_is_read) {
  link_facts facts;
  ASSERT_TRUE(read_link_facts(payload_of(attribute(IFLA_INFO_SLAVE_KIND, text_bytes("bridge")) +
                                         attribute(IFLA_INFO_SLAVE_DATA, port_settings(BR_STATE_FORWARDING))),
                              facts));
  EXPECT_EQ(facts.port_state, BR_STATE_FORWARDING);
}

// The numbers of attributes mean something else there.
TEST(link_facts, settings_of_a_port_of_something_else_are_passed_over) {
  link_facts facts;
  ASSERT_TRUE(read_link_facts(payload_of(attribute(IFLA_INFO_SLAVE_KIND, text_bytes("bond")) +
                                         attribute(IFLA_INFO_SLAVE_DATA, port_settings(BR_STATE_FORWARDING))),
                              facts));
  EXPECT_EQ(facts.port_state, 0);
}

TEST(link_facts, text_without_an_end_is_cut) {
  link_facts facts;
  const byte_vector letters(40, std::byte{'a'});
  ASSERT_TRUE(read_link_facts(bytes_of(ifinfomsg{}) + attribute(IFLA_IFNAME, letters), facts));
  EXPECT_EQ(text_of(facts.name), std::string(IFNAMSIZ - 1, 'a'));
}

TEST(link_facts, too_short_a_message_is_refused) {
  link_facts facts;
  EXPECT_FALSE(read_link_facts(byte_vector(sizeof(ifinfomsg) - 1), facts));
}

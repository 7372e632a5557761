#include "assist/notification.h"

#include "netlink_bytes.h"

#include <gtest/gtest.h>

namespace {

constexpr in6_addr some_group{{{0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};

notification only_notification(const byte_vector &bytes) {
  netlink_bytes rest{bytes};
  notification event{};
  EXPECT_TRUE(next_notification(rest, event));
  EXPECT_TRUE(rest.empty());
  return event;
}

notification_kind kind_of(const byte_vector &bytes) { return only_notification(bytes).kind; }

} // namespace

TEST(notification, new_link_brings_index_and_name) {
  const notification event = only_notification(link_message(RTM_NEWLINK, 4, "br0"));
  EXPECT_EQ(event.kind, notification_kind::link_there);
  EXPECT_EQ(event.index, 4U);
  EXPECT_STREQ(event.name.data(), "br0");
}

TEST(notification, deleted_link_brings_index) {
  const notification event = only_notification(link_message(RTM_DELLINK, 4, "br0"));
  EXPECT_EQ(event.kind, notification_kind::link_gone);
  EXPECT_EQ(event.index, 4U);
}

TEST(notification, port_that_leaves_its_bridge_is_not_a_deleted_link) {
  EXPECT_EQ(kind_of(link_message(RTM_DELLINK, 4, "lan1", AF_BRIDGE)), notification_kind::other);
  EXPECT_EQ(kind_of(link_message(RTM_NEWLINK, 4, "lan1", AF_BRIDGE)), notification_kind::other);
}

TEST(notification, longest_name_is_read_and_a_longer_one_is_not) {
  EXPECT_STREQ(only_notification(link_message(RTM_NEWLINK, 4, "fifteen-letters")).name.data(), "fifteen-letters");
  EXPECT_STREQ(only_notification(link_message(RTM_NEWLINK, 4, "sixteen-letters!")).name.data(), "");
}

TEST(notification, name_without_its_end_is_not_read) {
  ifinfomsg header{};
  header.ifi_index = 4;
  const byte_vector bytes =
      message(RTM_NEWLINK, bytes_of(header) + attribute(IFLA_IFNAME, byte_vector(4, std::byte{'b'})));
  EXPECT_STREQ(only_notification(bytes).name.data(), "");
}

TEST(notification, multicast_forwarding_of_an_interface_is_read) {
  const notification event = only_notification(netconf_message(3, 1));
  EXPECT_EQ(event.kind, notification_kind::ipv6_there);
  EXPECT_EQ(event.index, 3U);
  EXPECT_EQ(event.mc_forwarding, 1);
  EXPECT_EQ(only_notification(netconf_message(3, 0)).mc_forwarding, 0);
}

TEST(notification, settings_without_multicast_forwarding_leave_it_open) {
  EXPECT_EQ(only_notification(netconf_message(3, MC_FORWARDING_UNKNOWN)).mc_forwarding, MC_FORWARDING_UNKNOWN);
}

TEST(notification, lost_ipv6_side_is_an_event) {
  EXPECT_EQ(kind_of(netconf_message(3, MC_FORWARDING_UNKNOWN, RTM_DELNETCONF)), notification_kind::ipv6_gone);
}

TEST(notification, ipv4_settings_are_of_no_concern) {
  EXPECT_EQ(kind_of(netconf_message(3, 1, RTM_NEWNETCONF, AF_INET)), notification_kind::other);
}

TEST(notification, static_entry_is_read_with_parent_and_outputs) {
  const notification event = only_notification(entry_message(RTM_NEWROUTE, 3, {3}));
  EXPECT_EQ(event.kind, notification_kind::entry_there);
  EXPECT_EQ(event.input, 3U);
  EXPECT_EQ(event.output_count, 1U);
  EXPECT_EQ(event.outputs, 1U << 3);
  EXPECT_TRUE(is_static_entry(event));
  const notification changed = only_notification(entry_message(RTM_DELROUTE, 0, {4, 5}));
  EXPECT_EQ(changed.kind, notification_kind::entry_gone);
  EXPECT_EQ(changed.input, 0U);
  EXPECT_EQ(changed.output_count, 2U);
}

TEST(notification, entries_of_groups_are_read_with_origin_and_group) {
  const notification event = only_notification(entry_message(RTM_NEWROUTE, 3, {4, 31, 32}, in6addr_any, some_group));
  EXPECT_EQ(event.kind, notification_kind::entry_there);
  EXPECT_EQ(event.group, from_in6_addr(some_group));
  EXPECT_EQ(event.origin, In6AddrAny);
  EXPECT_EQ(event.output_count, 3U);
  EXPECT_EQ(event.outputs, 1U << 4 | 1U << 31);
  EXPECT_FALSE(is_static_entry(event));
  const notification gone = only_notification(entry_message(RTM_DELROUTE, 3, {4}, some_group, in6addr_any));
  EXPECT_EQ(gone.kind, notification_kind::entry_gone);
  EXPECT_EQ(gone.origin, from_in6_addr(some_group));
  EXPECT_FALSE(is_static_entry(gone));
}

TEST(notification, entry_without_addresses_is_of_no_concern) {
  rtmsg header{};
  header.rtm_family = RTNL_FAMILY_IP6MR;
  EXPECT_EQ(kind_of(message(RTM_DELROUTE, bytes_of(header))), notification_kind::other);
  EXPECT_EQ(kind_of(message(RTM_DELROUTE, bytes_of(header) + attribute(RTA_SRC, byte_vector(4)) +
                                              attribute(RTA_DST, byte_vector(16)))),
            notification_kind::other);
}

TEST(notification, unicast_routes_are_of_no_concern) {
  byte_vector bytes = entry_message(RTM_NEWROUTE, 3, {3});
  bytes[sizeof(nlmsghdr)] = std::byte{AF_INET6};
  EXPECT_EQ(kind_of(bytes), notification_kind::other);
}

TEST(notification, unknown_message_is_skipped_and_the_next_one_read) {
  const byte_vector bytes = message(999, text_bytes("x")) + error_message(1) + link_message(RTM_DELLINK, 4, "br0");
  netlink_bytes rest{bytes};
  notification event;
  ASSERT_TRUE(next_notification(rest, event));
  EXPECT_EQ(event.kind, notification_kind::other);
  ASSERT_TRUE(next_notification(rest, event));
  EXPECT_EQ(event.kind, notification_kind::other);
  ASSERT_TRUE(next_notification(rest, event));
  EXPECT_EQ(event.kind, notification_kind::link_gone);
  EXPECT_FALSE(next_notification(rest, event));
}

// Every message cut at every length, with its own length adjusted: the inner lengths then point beyond the end.
TEST(notification, message_cut_anywhere_is_read_within_its_bytes) {
  for (const byte_vector &whole :
       {link_message(RTM_NEWLINK, 4, "br0"), netconf_message(3, 1), entry_message(RTM_NEWROUTE, 3, {3, 4})}) {
    for (std::size_t length = sizeof(nlmsghdr); length < whole.size(); ++length) {
      byte_vector cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
      const std::uint32_t told_length = static_cast<std::uint32_t>(length);
      std::memcpy(cut.data(), &told_length, sizeof(told_length));
      cut.shrink_to_fit();
      netlink_bytes rest{cut};
      notification event;
      EXPECT_TRUE(next_notification(rest, event));
      EXPECT_LE(event.output_count, 2U);
      EXPECT_FALSE(next_notification(rest, event));
    }
  }
}

#include "run/interface_state.h"
#include "run/pacing.h"
#include "run/routing_rivals.h"
#include "run/routing_state.h"
#include "run/served_interfaces.h"

#include <cstring>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <string>

namespace {

constexpr std::int64_t now_ms = 100'000;
constexpr std::int64_t far_ms = INT64_MAX;

interface_name name(const char *text) {
  interface_name copied{};
  std::strncpy(copied.data(), text, copied.size() - 1);
  return copied;
}

interface_state state(std::uint32_t index, std::uint16_t flags, std::uint8_t last_byte) {
  interface_state made{};
  made.index = index;
  made.flags = flags;
  made.has_link_local = last_byte != 0;
  made.link_local.s6_addr[0] = 0xfe;
  made.link_local.s6_addr[1] = 0x80;
  made.link_local.s6_addr[15] = last_byte;
  return made;
}

class served_interfaces_of : public testing::Test {
protected:
  void SetUp() override {
    run_options options{};
    options.upstream = name("wan0");
    options.downstreams = {name("br0"), name("lan1")};
    options.downstream_count = 2;
    fill_served_interfaces(options, served);
    for (std::size_t i = 0; i < served.count; ++i) {
      served.all[i].now = state(static_cast<std::uint32_t>(i + 3), IFF_UP, 1);
    }
  }

  difference difference_of(std::size_t i, std::int64_t at_ms = now_ms) {
    until_ms = far_ms;
    return find_difference(served, served.all[i], at_ms, until_ms);
  }

  served_interfaces served;
  std::int64_t until_ms = far_ms;
};

} // namespace

TEST_F(served_interfaces_of, every_name_has_its_place) {
  EXPECT_EQ(served.count, 3U);
  EXPECT_STREQ(served.all[0].name.data(), "wan0");
  EXPECT_STREQ(served.all[1].name.data(), "br0");
  EXPECT_STREQ(served.all[2].name.data(), "lan1");
}

TEST_F(served_interfaces_of, start_needs_the_upstream_and_one_lan) {
  EXPECT_TRUE(can_start(served));
  served.all[1].now = {};
  EXPECT_TRUE(can_start(served));
  EXPECT_FALSE(is_everything_ready(served));
  served.all[2].now = state(5, 0, 1);
  EXPECT_FALSE(can_start(served));
  served.all[2].now = state(5, IFF_UP, 0);
  EXPECT_FALSE(can_start(served));
  served.network = network_mode::own;
  EXPECT_TRUE(can_start(served)) << "a private network has addresses of its own";
  served.all[0].now = {};
  EXPECT_FALSE(can_start(served));
}

TEST_F(served_interfaces_of, waiting_text_says_what_each_lacks) {
  served.all[0].now = {};
  served.all[1].now = state(4, 0, 1);
  served.all[2].now = state(5, IFF_UP, 0);
  waiting_text text;
  describe_missing(served, text);
  EXPECT_STREQ(text.data(), "wan0 (not there), br0 (down), lan1 (no link-local address)");
}

TEST_F(served_interfaces_of, unchanged_interface_makes_no_difference_also_while_it_is_away) {
  give_ready_interfaces(served);
  EXPECT_EQ(difference_of(0), difference::none);
  served.all[0].now = {};
  EXPECT_EQ(difference_of(0), difference::none);
  served.all[0].now = state(3, 0, 0);
  EXPECT_EQ(difference_of(0), difference::none);
  EXPECT_EQ(until_ms, far_ms);
}

TEST_F(served_interfaces_of, other_index_or_address_or_newcomer_is_a_difference) {
  served.all[2].now = {};
  give_ready_interfaces(served);
  served.all[0].now = state(9, IFF_UP, 1);
  served.all[1].now = state(4, IFF_UP, 2);
  served.all[2].now = state(5, IFF_UP, 1);
  EXPECT_EQ(difference_of(0), difference::index);
  EXPECT_EQ(difference_of(1), difference::address);
  EXPECT_EQ(difference_of(2), difference::new_here);
}

TEST_F(served_interfaces_of, lost_address_counts_after_three_seconds) {
  give_ready_interfaces(served);
  served.all[1].now = state(4, IFF_UP, 0);
  served.all[1].not_ready_since_ms = now_ms;
  EXPECT_EQ(difference_of(1), difference::none);
  EXPECT_EQ(until_ms, now_ms + 3000);
  EXPECT_EQ(difference_of(1, now_ms + 2999), difference::none);
  EXPECT_EQ(difference_of(1, now_ms + 3000), difference::address);
}

TEST_F(served_interfaces_of, daemon_is_not_asked_to_end_where_that_would_bring_up_a_link) {
  give_ready_interfaces(served);
  EXPECT_FALSE(would_end_set_wrong_flags(served));
  served.all[1].now = state(4, 0, 1);
  EXPECT_TRUE(would_end_set_wrong_flags(served)) << "down";
  served.all[1].now = state(7, IFF_UP, 1);
  EXPECT_TRUE(would_end_set_wrong_flags(served)) << "another one";
  served.network = network_mode::own;
  EXPECT_FALSE(would_end_set_wrong_flags(served));
}

TEST(if_inet6_line, gives_address_flags_and_name) {
  if_inet6_row row;
  ASSERT_TRUE(parse_if_inet6("fe80000000000000000000fffe0001fe 02 40 20 80 br-lan.10\n", row));
  EXPECT_EQ(row.address.s6_addr[0], 0xfe);
  EXPECT_EQ(row.address.s6_addr[1], 0x80);
  EXPECT_EQ(row.address.s6_addr[14], 0x01);
  EXPECT_EQ(row.address.s6_addr[15], 0xfe);
  EXPECT_TRUE(is_ready_link_local(row, name("br-lan.10")));
  EXPECT_FALSE(is_ready_link_local(row, name("br-lan.1")));
  row.flags = IFA_F_TENTATIVE;
  EXPECT_FALSE(is_ready_link_local(row, name("br-lan.10")));
  row.flags = IFA_F_TENTATIVE | IFA_F_OPTIMISTIC;
  EXPECT_TRUE(is_ready_link_local(row, name("br-lan.10")));
  row.flags = IFA_F_DADFAILED;
  EXPECT_FALSE(is_ready_link_local(row, name("br-lan.10")));
}

TEST(if_inet6_line, global_address_is_not_taken_and_nonsense_is_refused) {
  if_inet6_row row;
  ASSERT_TRUE(parse_if_inet6("20010db8000000010000000000000001 02 40 00 80      br0\n", row));
  EXPECT_FALSE(is_ready_link_local(row, name("br0")));
  for (const char *nonsense : {"", "\n", "fe80", "fe80000000000000000000fffe0001fe 02 40 20", "zz"}) {
    EXPECT_FALSE(parse_if_inet6(nonsense, row)) << nonsense;
  }
}

TEST(routing_tables, lines_of_mifs_and_of_the_static_entry_are_known) {
  std::uint32_t number = 0;
  interface_name found;
  ASSERT_TRUE(parse_mif(" 3 wan0              0       0         0       0 00000\n", number, found));
  EXPECT_EQ(number, 3U);
  EXPECT_STREQ(found.data(), "wan0");
  EXPECT_FALSE(parse_mif("Interface      BytesIn  PktsIn  BytesOut PktsOut Flags\n", number, found));
  const std::string zeros = "0000:0000:0000:0000:0000:0000:0000:0000 ";
  EXPECT_TRUE(is_static_entry((zeros + zeros + "3          0        0        0  3:1\n").c_str()));
  EXPECT_FALSE(is_static_entry((zeros + "2001:0db8:0000:0000:0000:0000:0000:0001 3\n").c_str()));
}

TEST(raw_sockets, line_of_an_icmpv6_socket_gives_its_inode) {
  const std::string addresses = "  58: 00000000000000000000000000000000:";
  const std::string rest = " 00000000000000000000000000000000:0000 07 00000000:00000000 00:00000000 00000000     0  "
                           "      0 26061 2 0000000000000000 0\n";
  EXPECT_EQ(icmpv6_socket_of((addresses + "003A" + rest).c_str()), 26061U);
  EXPECT_EQ(icmpv6_socket_of((addresses + "0059" + rest).c_str()), 0U);
  EXPECT_EQ(icmpv6_socket_of("  sl  local_address   remote_address\n"), 0U);
}

TEST(pacing_of, early_ends_wait_longer_and_a_long_life_begins_anew) {
  pacing pace{};
  for (const int expected : {1, 2, 5, 10, 30, 30}) {
    EXPECT_EQ(pace_after_end(pace, now_ms, now_ms + 29'999), expected);
    EXPECT_EQ(pace.not_before_ms, now_ms + 29'999 + expected * 1000);
  }
  EXPECT_EQ(pace_after_end(pace, now_ms, now_ms + 30'000), 1);
}

TEST(pacing_of, wanted_starts_come_at_once_but_not_more_than_one_a_second) {
  pacing pace{};
  pace_after_end(pace, now_ms, now_ms);
  pace_after_stop(pace, now_ms);
  EXPECT_EQ(pace.not_before_ms, now_ms + 1000);
  EXPECT_EQ(pace_after_end(pace, now_ms, now_ms), 1);
}

#include "core/group_mapping.h"

#include "core/settings.h"
#include "tests/unit/igmp/fixture.h"

#include <cstring>

namespace {

using namespace scripted;

struct group_mapping : igmp_start_fixture {
  group_mapping() { MldPrefix = scripted::address("ff0e:1:2:3:4:5:6:7"); }
};

// Prefix and a native word as it lies in memory.
ipv6_address joined(const std::string &prefix, std::uint32_t native) {
  ipv6_address expected = scripted::address(prefix);
  std::memcpy(&expected[12], &native, sizeof(native));
  return expected;
}

ipv6_address mapped(std::uint32_t group) {
  in6_addr address;
  std::memset(&address, 0xaa, sizeof(address));
  fill_v6mreq_group_address(address, &group);
  return from_in6_addr(address);
}

TEST_F(group_mapping, group_lies_verbatim_behind_the_twelve_prefix_bytes) {
  EXPECT_EQ(mapped(word("239.1.2.3")), scripted::address("ff0e:1:2:3:4:5:ef01:203"));
}

TEST_F(group_mapping, routers_groups_ignore_the_prefix_and_end_in_a_native_number) {
  EXPECT_EQ(mapped(IgmpAllRouters), joined("ff02::", 2));
  EXPECT_EQ(mapped(IgmpV3AllMcr), joined("ff02::", 22));
}

TEST_F(group_mapping, all_hosts_word_is_an_ordinary_group) {
  EXPECT_EQ(mapped(IgmpAllHosts), joined("ff0e:1:2:3:4:5::", IgmpAllHosts));
}

TEST_F(group_mapping, forwarding_request_gets_nothing_but_the_group_address) {
  for (const std::uint32_t group : {word("239.1.2.3"), IgmpAllRouters, IgmpV3AllMcr}) {
    mf6cctl filled;
    std::memset(&filled, 0x55, sizeof(filled));
    mf6cctl expected = filled;
    fill_mf6cctrl_group_address(filled, &group);
    expected.mf6cc_mcastgrp.sin6_addr = to_in6_addr(mapped(group));
    EXPECT_EQ(std::memcmp(&filled, &expected, sizeof(filled)), 0);
  }
}

} // namespace

#include "igmp/igmp_lan_address.h"

#include "fixture.h"

namespace {

using namespace scripted;

struct igmp_lan : igmp_start_fixture {};

TEST_F(igmp_lan, address_is_read_from_its_first_octet_up) {
  const std::vector<std::pair<lines, std::uint32_t>> rows{
      {{"lan_ipaddr=1.2.3.4"}, 0x04030201},
      {{"lan_ipaddr=192.168.1.254"}, 0xfe01a8c0},
      {{"lan_ipaddr="}, 0},
      {{}, 0},
      {{"lan_ipaddr=10"}, 10},
      {{"lan_ipaddr=10.1"}, 0x010a},
      {{"lan_ipaddr=a.b.c.d"}, 0},
      {{"lan_ipaddr=1.2.3.4.5"}, 0x04030201},
  };
  for (const auto &[nvram, expected] : rows) {
    given_nvram(nvram);
    EXPECT_EQ(igmp_lan_address(), expected) << (nvram.empty() ? "absent" : nvram[0]);
  }
}

} // namespace

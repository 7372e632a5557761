#include "assist/query.h"

#include "fixture.h"

#include <cerrno>

namespace {

class query_of : public watch_fixture {
protected:
  void SetUp() override {
    watch_fixture::SetUp();
    Kernel.own_addresses = {{4, "fe80::4"}};
  }
};

const std::string group = "ff3e::1:2:3";

} // namespace

TEST_F(query_of, group_is_sent_to_the_group_byte_by_byte) {
  EXPECT_TRUE(send_query(MLD_SOCKET, 4, address(group), 1000));
  EXPECT_EQ(requests(), lines{query_for(group)});
  const mld_bytes expected = mld_bytes{130, 0}       // type, code
                             + mld_bytes{0, 0}       // checksum: the kernel's
                             + mld_bytes{0x03, 0xe8} // maximum response code: 1000 ms
                             + mld_bytes{0, 0}       // reserved
                             + address_bytes(group)  //
                             + mld_bytes{2}          // S clear, QRV 2
                             + mld_bytes{125}        // QQIC
                             + mld_bytes{0, 0};      // no sources
  ASSERT_EQ(Kernel.queries.size(), 1U);
  EXPECT_EQ(Kernel.queries[0], expected);
}

TEST_F(query_of, all_groups_is_sent_to_all_nodes) {
  EXPECT_TRUE(send_query(MLD_SOCKET, 4, In6AddrAny, 2000));
  EXPECT_EQ(requests(), lines{general_query(4)});
  EXPECT_EQ(Kernel.queries[0], query_bytes("::", 2000));
}

TEST_F(query_of, nobody_is_not_sent_while_the_interface_has_no_link_local_address) {
  Kernel.own_addresses = {};
  EXPECT_FALSE(send_query(MLD_SOCKET, 4, In6AddrAny, 2000));
  EXPECT_EQ(errno, EADDRNOTAVAIL);
  for (const std::string own : {"2001:db8::4", "::"}) {
    Kernel.own_addresses = {{4, own}};
    EXPECT_FALSE(send_query(MLD_SOCKET, 4, In6AddrAny, 2000)) << own;
    EXPECT_EQ(errno, EADDRNOTAVAIL);
  }
}

TEST_F(query_of, every_refused_call_is_reported_with_its_reason) {
  for (const std::string call : {"socket SOCK_DGRAM", "connect", "getsockname", "sendmsg"}) {
    Kernel.refusals[call] = {ENOBUFS};
    EXPECT_FALSE(send_query(MLD_SOCKET, 4, In6AddrAny, 2000)) << call;
    EXPECT_EQ(errno, ENOBUFS) << call;
  }
  requests();
}

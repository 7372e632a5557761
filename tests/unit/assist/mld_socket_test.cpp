#include "assist/mld_socket.h"

#include "fixture.h"
#include "mld_bytes.h"

#include <cerrno>
#include <unistd.h>

namespace {

using mld_socket = companion_fixture;

const lines set_up = {"ICMP6_FILTER lets in 130 131 132 143",
                      "IPV6_RECVPKTINFO 1",
                      "IPV6_RECVHOPLIMIT 1",
                      "IPV6_RECVHOPOPTS 1",
                      "IPV6_MULTICAST_HOPS 1",
                      "IPV6_MULTICAST_LOOP 0",
                      "IPV6_HOPOPTS 0000 0502 0000 0100"};

} // namespace

TEST_F(mld_socket, hears_only_mld_and_sends_with_router_alert_to_others) {
  const int opened = open_mld_socket();
  EXPECT_GE(opened, 0);
  close(opened);
  EXPECT_EQ(requests(), set_up);
}

TEST_F(mld_socket, every_refused_option_ends_the_start) {
  for (std::size_t i = 0; i < set_up.size(); ++i) {
    Kernel.refusals[set_up[i].substr(0, set_up[i].find(' '))] = {ENOMEM};
    EXPECT_EQ(open_mld_socket(), -1) << set_up[i];
    EXPECT_EQ(requests(), lines(set_up.begin(), set_up.begin() + static_cast<std::ptrdiff_t>(i) + 1));
    EXPECT_EQ(said(), lines{"cannot have MLD messages: Cannot allocate memory"});
  }
}

TEST_F(mld_socket, failed_socket_is_reported_with_its_reason) {
  Kernel.refusals["socket AF_INET6"] = {EMFILE};
  EXPECT_EQ(open_mld_socket(), -1);
  EXPECT_EQ(said(), lines{"cannot have MLD messages: Too many open files"});
}

TEST_F(mld_socket, everything_that_waits_is_read) {
  Kernel.mld.resize(3);
  EXPECT_EQ(handle_mld_messages(MLD_SOCKET), mld_state::all_read);
  EXPECT_TRUE(Kernel.mld.empty());
}

TEST_F(mld_socket, flood_is_read_in_portions) {
  Kernel.mld.resize(100);
  EXPECT_EQ(handle_mld_messages(MLD_SOCKET), mld_state::more);
  EXPECT_EQ(Kernel.mld.size(), 36U);
}

TEST_F(mld_socket, interrupted_read_is_tried_again) {
  Kernel.mld.resize(2);
  Kernel.mld[0].reason = EINTR;
  EXPECT_EQ(handle_mld_messages(MLD_SOCKET), mld_state::more);
  EXPECT_EQ(handle_mld_messages(MLD_SOCKET), mld_state::all_read);
}

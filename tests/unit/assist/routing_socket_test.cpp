#include "assist/routing_socket.h"

#include "tests/support/companion_kernel.h"

#include <cerrno>
#include <unistd.h>

namespace {

using routing_socket = companion_fixture;

const std::string probe = "MRT6_DEL_MFC (nothing)";
const std::string nothing_in = "ICMP6_FILTER lets in";

} // namespace

TEST_F(routing_socket, kernel_with_multicast_routing_gives_a_silent_socket) {
  Kernel.refusals["MRT6_DEL_MFC"] = {EINVAL};
  const int opened = open_routing_socket();
  EXPECT_GE(opened, 0);
  close(opened);
  EXPECT_EQ(requests(), (lines{probe, nothing_in}));
}

TEST_F(routing_socket, process_without_net_raw_is_refused_with_the_reason) {
  Kernel.refusals["socket AF_INET6"] = {EPERM};
  EXPECT_EQ(open_routing_socket(), -1);
  EXPECT_EQ(said(), lines{"cannot open a raw ICMPv6 socket, CAP_NET_RAW is needed: Operation not permitted"});
}

TEST_F(routing_socket, kernel_without_ipv6_is_named) {
  Kernel.refusals["socket AF_INET6"] = {EAFNOSUPPORT};
  EXPECT_EQ(open_routing_socket(), -1);
  EXPECT_EQ(said(), lines{"cannot open a raw ICMPv6 socket, this kernel has no IPv6: Address family not supported by "
                          "protocol"});
}

TEST_F(routing_socket, failed_socket_is_reported_with_its_reason) {
  Kernel.refusals["socket AF_INET6"] = {EMFILE};
  EXPECT_EQ(open_routing_socket(), -1);
  EXPECT_EQ(said(), lines{"cannot open a raw ICMPv6 socket: Too many open files"});
}

TEST_F(routing_socket, process_without_net_admin_is_refused_with_the_reason) {
  Kernel.refusals["MRT6_DEL_MFC"] = {EACCES};
  EXPECT_EQ(open_routing_socket(), -1);
  EXPECT_EQ(requests(), lines{probe});
  EXPECT_EQ(said(), lines{"cannot use IPv6 multicast routing, CAP_NET_ADMIN is needed: Permission denied"});
}

TEST_F(routing_socket, kernel_without_multicast_routing_is_named) {
  Kernel.refusals["MRT6_DEL_MFC"] = {ENOPROTOOPT};
  EXPECT_EQ(open_routing_socket(), -1);
  EXPECT_EQ(requests(), lines{probe});
  EXPECT_EQ(said(), lines{"this kernel has no IPv6 multicast routing (CONFIG_IPV6_MROUTE): Protocol not available"});
}

TEST_F(routing_socket, unexpected_answer_to_the_probe_is_reported) {
  Kernel.refusals["MRT6_DEL_MFC"] = {ENOENT};
  EXPECT_EQ(open_routing_socket(), -1);
  EXPECT_EQ(requests(), lines{probe});
  EXPECT_EQ(said(), lines{"cannot use IPv6 multicast routing: No such file or directory"});
}

TEST_F(routing_socket, refused_filter_ends_the_start) {
  Kernel.refusals["MRT6_DEL_MFC"] = {EINVAL};
  Kernel.refusals["ICMP6_FILTER"] = {ENOMEM};
  EXPECT_EQ(open_routing_socket(), -1);
  EXPECT_EQ(requests(), (lines{probe, nothing_in}));
  EXPECT_EQ(said(), lines{"cannot set ICMP6_FILTER: Cannot allocate memory"});
}

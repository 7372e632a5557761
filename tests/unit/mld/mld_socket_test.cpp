#include "mld/mld_socket.h"

#include "start_fixture.h"

#include <algorithm>
#include <cerrno>

namespace {

using namespace scripted;

constexpr char init[] = "init_mld_socket";

struct mld_socket : mld_start_fixture {
  mld_socket() {
    MldRouter.socket = 0;
    Kernel.names[FIRST_NEW_SOCKET] = "new";
  }

  void when_opened() {
    when([&] { result = init_mld_socket(); });
  }

  int result = 1;
};

// Each option in its order, with the name under which the log knows it.
struct option_row {
  std::string request;
  std::string name;
};

const option_row option_rows[] = {
    {"setsockopt(new, MRT6_INIT) = 1", "MRT6_INIT"},
    {"setsockopt(new, SO_REUSEADDR) = 1", "SO_REUSEADDR"},
    {"setsockopt(new, IPV6_RECVPKTINFO) = 1", "IPV6_RECVPKTINFO"},
    {"setsockopt(new, IPV6_MULTICAST_HOPS) = 1", "IPV6_MULTICAST_HOPS"},
    {"setsockopt(new, IPV6_MULTICAST_LOOP) = 0", "IPV6_MULTICAST_LOOP"},
    {"setsockopt(new, ICMP6_FILTER) pass={130,131,143}", "ICMP6_FILTER"},
};

const lines opened_and_claim_released{
    logged_debug(init, "Initializing socket for MLD proxy."),
    "socket(AF_INET6, SOCK_RAW, 58)",
    "setsockopt(new, MRT6_DONE) = 1",
    logged_debug(init, "setsockopt: MRT6_DONE"),
};

// The transcript when the kernel accepts the first `count` options.
lines accepted(std::size_t count) {
  lines expected = opened_and_claim_released;
  std::for_each_n(std::begin(option_rows), count, [&](const option_row &row) {
    expected.push_back(row.request);
    expected.push_back(logged_debug(init, "setsockopt: " + row.name));
  });
  return expected;
}

TEST_F(mld_socket, claims_routing_and_lets_queries_and_reports_through) {
  when_opened();
  then(accepted(std::size(option_rows)));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(MldRouter.socket, FIRST_NEW_SOCKET);
}

TEST_F(mld_socket, done_messages_of_mldv1_are_kept_out) {
  when_opened();
  then_in_order({"setsockopt(new, ICMP6_FILTER) pass={130,131,143}"}); // 132 is not among them
}

TEST_F(mld_socket, a_stale_claim_that_is_not_there_does_not_matter) {
  given_failure("setsockopt(new, MRT6_DONE)", EACCES);
  when_opened();
  then(accepted(std::size(option_rows)));
  EXPECT_EQ(result, 0);
}

TEST_F(mld_socket, without_a_socket_start_up_ends_without_a_stop) {
  given_failure("socket(AF_INET6, SOCK_RAW, 58)", EPERM);
  when_opened();
  then({
      logged_debug(init, "Initializing socket for MLD proxy."),
      "socket(AF_INET6, SOCK_RAW, 58)",
      logged_error(init, "Unable to open MLD Raw socket."),
  });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(MldRouter.socket, -1);
}

struct mld_socket_option : mld_socket, testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(options, mld_socket_option, testing::Range<std::size_t>(0, std::size(option_rows)),
                         [](const auto &given) { return option_rows[given.param].name; });

TEST_P(mld_socket_option, when_refused_ends_start_up_and_leaves_the_socket_open) {
  const option_row &refused = option_rows[GetParam()];
  given_failure(refused.request, EADDRINUSE);
  when_opened();
  then(accepted(GetParam()) + lines{refused.request, logged_error(init, "setsockopt: " + refused.name + " fail!!!")});
  EXPECT_EQ(result, -1);
  EXPECT_EQ(MldRouter.socket, FIRST_NEW_SOCKET);
}

} // namespace

#include "igmp/igmp_socket.h"

#include "fixture.h"

#include <cerrno>

namespace {

using namespace scripted;

struct igmp_socket : igmp_start_fixture {
  igmp_socket() { Kernel.names[FIRST_NEW_SOCKET] = "igmp"; }
};

struct step {
  std::string request;
  std::string failure; // empty: a refusal changes nothing
};

const std::vector<step> steps_4to4{
    {"socket(AF_INET, SOCK_RAW, 2)", "Unable to open IGMP Raw socket."},
    {"setsockopt(igmp, MRT_INIT) = 1", "Unable to enable MRT_INIT option."},
    {"setsockopt(igmp, SO_REUSEADDR) = 1", "Unable to enable SO_REUSEADDR option."},
    {"setsockopt(igmp, IP_PKTINFO) = 1", "Unable to enable IP_PKTINFO option."},
    {"setsockopt(igmp, IP_MULTICAST_TTL) = 1", "Unable to set IP_MULTICAST_TTL value."},
    {"setsockopt(igmp, IP_MULTICAST_LOOP) = 0", "Unable to disable IP_MULTICAST_LOOP option."},
};

const std::vector<step> steps_4to6{
    {"setsockopt(igmp, MRT6_DONE) = 1", ""},
    {"setsockopt(igmp, MRT6_INIT) = 1", "Unable to enable MRT6_INIT option."},
    {"setsockopt(igmp, SO_REUSEADDR) = 1", "Unable to enable SO_REUSEADDR option."},
    {"setsockopt(igmp, IPV6_RECVPKTINFO) = 1", "Unable to enable IPV6_RECVPKTINFO option."},
    {"setsockopt(igmp, IPV6_MULTICAST_HOPS) = 1", "Unable to enable IPV6_MULTICAST_HOPS option."},
    {"setsockopt(igmp, IPV6_MULTICAST_LOOP) = 0", "Unable to disable IPV6_MULTICAST_LOOP option."},
};

std::vector<step> all_steps() {
  std::vector<step> steps = steps_4to4;
  steps.insert(steps.end(), steps_4to6.begin(), steps_4to6.end());
  return steps;
}

lines expected_until(const std::vector<step> &steps, std::size_t count) {
  lines expected{logged_information("init_igmp_socket", "Initializing IGMP socket.")};
  for (std::size_t i = 0; i < count; ++i) {
    expected.push_back(steps[i].request);
  }
  return expected;
}

TEST_F(igmp_socket, mode_4to4_sets_no_ipv6_option) {
  when([] { EXPECT_EQ(init_igmp_socket(), 0); });
  then(expected_until(steps_4to4, steps_4to4.size()));
  EXPECT_EQ(IgmpRouter.socket, FIRST_NEW_SOCKET);
}

TEST_F(igmp_socket, mode_4to6_claims_ipv6_routing_on_the_same_socket) {
  ProxyMode = PROXY_MODE_4TO6;
  when([] { EXPECT_EQ(init_igmp_socket(), 0); });
  then(expected_until(all_steps(), all_steps().size()));
}

TEST_F(igmp_socket, each_refusal_is_logged_and_ends_the_set_up_where_it_stands) {
  const std::vector<step> steps = all_steps();
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (steps[i].failure.empty()) {
      continue;
    }
    reset();
    Kernel.names[FIRST_NEW_SOCKET] = "igmp";
    ProxyMode = PROXY_MODE_4TO6;
    Kernel.fail_at = static_cast<int>(i) + 1;
    Kernel.fail_error = ENOPROTOOPT;
    when([] { EXPECT_EQ(init_igmp_socket(), -1); });
    lines expected = expected_until(steps, i + 1);
    expected.push_back(logged_error("init_igmp_socket", steps[i].failure));
    then(expected);
    EXPECT_EQ(IgmpRouter.socket, i == 0 ? -1 : FIRST_NEW_SOCKET);
  }
}

TEST_F(igmp_socket, refused_release_of_a_stale_claim_is_not_minded) {
  ProxyMode = PROXY_MODE_4TO6;
  given_failure("setsockopt(igmp, MRT6_DONE)", EACCES);
  when([] { EXPECT_EQ(init_igmp_socket(), 0); });
  then(expected_until(all_steps(), all_steps().size()));
}

} // namespace

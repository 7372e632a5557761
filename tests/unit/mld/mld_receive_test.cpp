#include "mld/mld_receive.h"

#include "fixture.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>

namespace {

using namespace scripted;

struct mld_receive : mld_report_fixture {
  // Delivers a query from fe80::1 whose ancillary data the test wrote itself.
  void when_received_with_control(const std::vector<std::uint8_t> &control) {
    message given{mldv1_message(130, "::"), "fe80::1", std::nullopt};
    given.control = control;
    Kernel.messages.push_back(given);
    when([] { mld_network_socket_read_data(); });
  }
};

constexpr char read_data[] = "mld_network_socket_read_data";
constexpr char query[] = "mld_router_received_general_query";
constexpr char v1_report[] = "mld_router_version1_report_handler";
constexpr char query_line[] = "[PACKET] icmp6_type: ICMPV6_MGM_QUERY";
constexpr int wan0_index = 2;
constexpr int br0_index = 3;
constexpr int lan1_index = 4;

// One control message that names br0, of the given level and type, with `missing` bytes cut off its end.
std::vector<std::uint8_t> control_message(int level, int type, std::size_t missing = 0) {
  in6_pktinfo info{};
  info.ipi6_ifindex = br0_index;
  cmsghdr header{};
  header.cmsg_len = static_cast<decltype(header.cmsg_len)>(CMSG_LEN(sizeof(info)) - missing);
  header.cmsg_level = level;
  header.cmsg_type = type;
  std::vector<std::uint8_t> bytes(CMSG_SPACE(sizeof(info)), 0);
  std::memcpy(bytes.data(), &header, sizeof(header));
  std::memcpy(bytes.data() + CMSG_LEN(0), &info, sizeof(info));
  return bytes;
}

TEST_F(mld_receive, query_of_lower_address_takes_the_querier_role) {
  br0->query_timer = 77;
  when_received(mldv1_message(130, "::"), "fe80::1", br0_index);
  then(together({received("fe80::1", br0_index, query_line),
                 {logged_debug(query, "Received Query from fe80:0000:0000:0000:0000:0000:0000:0001 on interface br0 "
                                      "moving to NonQuerier.")}}));
  EXPECT_EQ(br0->query_count, 1u);
  EXPECT_EQ(br0->is_querier, 0u);
  EXPECT_EQ(br0->query_timer, 0);
  EXPECT_EQ(br0->other_querier_timer, 300);
  EXPECT_EQ(lan1->query_count, 0u);
  EXPECT_EQ(lan1->is_querier, 1u);
}

TEST_F(mld_receive, query_of_own_address_leaves_the_querier_role) {
  br0->query_timer = 77;
  when_received(mldv1_message(130, "::"), "fe80::3", br0_index);
  then(together({received("fe80::3", br0_index, query_line),
                 {logged_debug(query, "Received Query from fe80:0000:0000:0000:0000:0000:0000:0003 on interface br0 "
                                      "but remain Querier.")}}));
  EXPECT_EQ(br0->query_count, 1u);
  EXPECT_EQ(br0->is_querier, 1u);
  EXPECT_EQ(br0->query_timer, 77);
}

TEST_F(mld_receive, election_compares_addresses_byte_by_byte_unsigned) {
  struct row {
    const char *sender;
    std::uint32_t non_querier;
    std::uint32_t querier_before;
    std::uint32_t querier_after;
    std::int32_t other_timer_after;
    std::int32_t query_timer_after = 77;
  };
  const row rows[] = {
      {"fe80::2", 0, 1, 0, 300, 0},    // lower
      {"fe80::2", 0, 0, 0, 300, 0},    // lower, again
      {"7f00::ffff", 0, 1, 0, 300, 0}, // lower in the first byte, higher in the last
      {"::", 0, 1, 0, 300, 0},         // lower than any
      {"fe80::3", 0, 0, 0, 0},         // equal: the role is left as it is
      {"fe80::4", 0, 1, 1, 0},         // higher
      {"fe80::4", 0, 0, 0, 0},         // higher: the role comes back on the next tick
      {"fe80::ff", 0, 1, 1, 0},        // a byte above 127 is higher, not negative
      {"ff00::", 0, 1, 1, 0},          // the same in the first byte
      {"fe80::2", 1, 1, 1, 0},         // set to stay querier
      {"fe80::2", 1, 0, 1, 0},         // set so while another one was
      {"fe80::2", 2, 1, 0, 300, 0},    // only 1 counts
  };
  for (const row &given : rows) {
    SCOPED_TRACE(testing::Message() << given.sender << " " << given.non_querier << " " << given.querier_before);
    MldRouter.non_querier = given.non_querier;
    br0->is_querier = given.querier_before;
    br0->other_querier_timer = 55;
    br0->query_timer = 77;
    when_received(mldv1_message(130, "::"), given.sender, br0_index);
    then_requests({"recvmsg(mld)"});
    EXPECT_EQ(br0->query_timer, given.query_timer_after);
    EXPECT_EQ(br0->is_querier, given.querier_after);
    EXPECT_EQ(br0->other_querier_timer, given.other_timer_after);
  }
  EXPECT_EQ(br0->query_count, std::size(rows));
}

TEST_F(mld_receive, group_specific_query_counts_as_election_query) {
  given_group(br0, "ff0e::1");
  when_received(mldv1_message(130, "ff0e::1"), "fe80::1", br0_index);
  then_in_order({logged_debug(read_data, query_line)});
  EXPECT_EQ(br0->is_querier, 0u);
  then_groups(br0, {group_line("ff0e::1")});
}

TEST_F(mld_receive, message_without_handler_is_only_traced) {
  const struct {
    int type;
    const char *line;
  } rows[] = {
      {132, "[PACKET] icmp6_type: ICMPV6_MGM_REDUCTION"},
      {134, "Router advertisement, discard it!"},
      {0, "Unknown ICMPv6 type: 0."},
      {1, "Unknown ICMPv6 type: 1."},
      {133, "Unknown ICMPv6 type: 133."},
      {142, "Unknown ICMPv6 type: 142."},
      {144, "Unknown ICMPv6 type: 144."},
      {255, "Unknown ICMPv6 type: 255."},
  };
  given_group(br0, "ff0e::1", {"2001:db8::1"});
  given_host(br0, "ff0e::1", "fe80::a", "2001:db8::1");
  for (const auto &given : rows) {
    when_received(mldv1_message(given.type, "ff0e::1"), "fe80::a", br0_index);
    then(received("fe80::a", br0_index, given.line));
  }
  then_groups(br0, {group_line("ff0e::1"), slot_line("2001:db8::1")});
  then_hosts(br0, {"ff0e::1 fe80::a 2001:db8::1"});
  EXPECT_EQ(br0->query_count + br0->join_count + br0->leave_count + br0->timeout_count, 0u);
}

TEST_F(mld_receive, upstream_query_is_only_counted) {
  when_received(mldv1_message(130, "::"), "fe80::1", wan0_index);
  then({"recvmsg(mld)"});
  EXPECT_EQ(wan0->query_count, 1u);
  EXPECT_EQ(wan0->is_querier, 1u);
  EXPECT_EQ(wan0->other_querier_timer, 0);
}

TEST_F(mld_receive, upstream_reports_are_ignored) {
  when_received(mldv1_message(131, "ff0e::1"), "fe80::a", wan0_index);
  when_received(mldv1_message(132, "ff0e::1"), "fe80::a", wan0_index);
  when_received(mldv2_report({{4, "ff0e::1"}}), "fe80::a", wan0_index);
  then({"recvmsg(mld)", "recvmsg(mld)", "recvmsg(mld)"});
  EXPECT_EQ(wan0->query_count, 0u);
  then_groups(wan0, {});
}

TEST_F(mld_receive, message_of_an_unknown_interface_is_dropped_silently) {
  for (const int ifindex : {0, 1, 5, 99, -1}) {
    when_received(mldv1_message(131, "ff0e::1"), "fe80::a", ifindex);
    then({"recvmsg(mld)"});
  }
}

TEST_F(mld_receive, message_without_packet_information_is_dropped_silently) {
  Kernel.messages.push_back({mldv1_message(130, "::"), "fe80::1", std::nullopt});
  when([] { mld_network_socket_read_data(); });
  then({"recvmsg(mld)"});
  EXPECT_EQ(br0->query_count, 0u);
}

TEST_F(mld_receive, packet_information_is_found_by_level_type_and_length) {
  when_received_with_control(control_message(IPPROTO_IPV6, IPV6_PKTINFO));
  then_in_order({logged_debug(read_data, query_line)});
  EXPECT_EQ(br0->query_count, 1u);
}

TEST_F(mld_receive, other_control_messages_are_not_packet_information) {
  const std::vector<std::uint8_t> rows[] = {
      control_message(IPPROTO_IPV6, IPV6_HOPLIMIT),
      control_message(SOL_SOCKET, IPV6_PKTINFO),
      control_message(IPPROTO_IP, IPV6_PKTINFO),
      control_message(IPPROTO_IPV6, IPV6_PKTINFO, 1),
      control_message(IPPROTO_IPV6, IPV6_PKTINFO, sizeof(std::uint32_t)), // cut before the interface index
      control_message(IPPROTO_IPV6, IPV6_PKTINFO, sizeof(in6_pktinfo)),
      control_message(IPPROTO_IPV6, IPV6_PKTINFO, CMSG_LEN(sizeof(in6_pktinfo))), // length 0
  };
  for (const std::vector<std::uint8_t> &control : rows) {
    when_received_with_control(control);
    then({"recvmsg(mld)"});
  }
  EXPECT_EQ(br0->query_count, 0u);
}

TEST_F(mld_receive, truncated_control_data_is_not_packet_information) {
  const std::vector<std::uint8_t> whole = control_message(IPPROTO_IPV6, IPV6_PKTINFO);
  for (std::size_t kept = 1; kept < sizeof(cmsghdr); ++kept) {
    when_received_with_control({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(kept)});
    then({"recvmsg(mld)"});
  }
  EXPECT_EQ(br0->query_count, 0u);
}

TEST_F(mld_receive, failed_read_is_logged_and_survived) {
  for (const int error : {EAGAIN, EINTR, ENOBUFS, EBADF}) {
    given_failure("recvmsg(mld)", error);
    when([] { mld_network_socket_read_data(); });
    then({"recvmsg(mld)", logged_error(read_data, "MLD Unable to read MLD data.")});
  }
  EXPECT_EQ(br0->query_count, 0u);
}

TEST_F(mld_receive, empty_message_reads_as_zeros) {
  when_received({}, "fe80::a", br0_index);
  then(received("fe80::a", br0_index, "Unknown ICMPv6 type: 0."));
}

TEST_F(mld_receive, short_report_reads_as_zeros) {
  when_received({131}, "fe80::a", br0_index);
  then(together({received("fe80::a", br0_index, "[PACKET] icmp6_type: ICMPV6_MGM_REPORT"),
                 {logged_debug(v1_report, "[PACKET] group     : " + log_text("::")),
                  logged_debug(v1_report, "Add the group membership: " + log_text("::"))},
                 all_sources_joined("::")}));
  then_groups(br0, {group_line("::")});
}

TEST_F(mld_receive, bytes_of_an_earlier_message_do_not_show_through) {
  when_received(mldv2_report({{4, "ff0e::1"}, {4, "ff0e::2"}}), "fe80::a", br0_index);
  then_anything();
  when_received({143}, "fe80::a", br0_index);
  then_in_order({logged_error("mld_router_version2_report_handler", "Wrong group record number: 0")});
}

TEST_F(mld_receive, buffer_offered_to_the_kernel_holds_1600_zeros) {
  for (int i = 0; i < 2; ++i) { // the second one where the first message was
    Kernel.messages.push_back({std::vector<std::uint8_t>(1600, 0xff), "fe80::a", 3});
    when([] { mld_network_socket_read_data(); });
    EXPECT_EQ(Kernel.receive_buffer, std::vector<std::uint8_t>(1600, 0));
  }
  then_anything();
}

TEST_F(mld_receive, message_longer_than_the_buffer_is_cut) {
  std::vector<std::uint8_t> bytes = mldv1_message(131, "ff0e::1");
  bytes.resize(1601, 0xff);
  when_received(bytes, "fe80::a", br0_index);
  then_in_order({logged_debug(v1_report, "Add the group membership: " + log_text("ff0e::1"))});
  then_groups(br0, {group_line("ff0e::1")});
}

TEST_F(mld_receive, sender_that_the_kernel_does_not_name_is_the_unspecified_address) {
  when_received(mldv1_message(130, "::"), "", br0_index);
  then_in_order({logged_debug(read_data, "[PACKET] host      : " + log_text("::"))});
}

TEST_F(mld_receive, without_an_upstream_interface_downstream_messages_are_handled) {
  MldRouter.upstream_interface = nullptr;
  when_received(mldv1_message(130, "::"), "fe80::1", lan1_index);
  then_in_order(
      {logged_debug(query, "Received Query from " + log_text("fe80::1") + " on interface lan1 moving to NonQuerier.")});
  EXPECT_EQ(lan1->query_count, 1u);
}

TEST_F(mld_receive, one_call_reads_one_message) {
  Kernel.messages.push_back({mldv1_message(130, "::"), "fe80::1", br0_index});
  when_received(mldv1_message(130, "::"), "fe80::1", br0_index);
  EXPECT_EQ(Kernel.messages.size(), 1u);
  then_requests({"recvmsg(mld)"});
}

} // namespace

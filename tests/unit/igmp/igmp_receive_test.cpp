#include "igmp/igmp_receive.h"

#include "core/settings.h"
#include "fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using namespace scripted;

constexpr char reading[] = "igmp_network_socket_read_data";
constexpr char electing[] = "igmp_router_received_general_query";
constexpr char recvmsg_request[] = "recvmsg(igmp)";

constexpr int query = 0x11;
constexpr int v1_report = 0x12;
constexpr int v2_report = 0x16;
constexpr int leave = 0x17;

struct igmp_reception : igmp_fixture {
  // What every datagram from br0 leaves in the transcript before it is looked at.
  lines arrival(const std::string &sender = "198.51.100.50") {
    return {recvmsg_request, received_line(sender, "224.0.0.1", 3)};
  }

  void then_arrival_and(const lines &rest, const std::string &sender = "198.51.100.50") {
    lines expected = arrival(sender);
    expected.insert(expected.end(), rest.begin(), rest.end());
    then(expected);
  }

  // One of the two is lower than br0's address as a native word and one is higher; which one is which, the last octet
  // decides on a little-endian machine and the first one on a big-endian machine.
  static std::string lower_than_br0() { return is_first_lower() ? first : second; }
  static std::string higher_than_br0() { return is_first_lower() ? second : first; }

  static bool is_first_lower() { return word(first) < word(second); }

  static constexpr char first[] = "10.0.0.200";
  static constexpr char second[] = "200.0.0.1";
};

TEST_F(igmp_reception, failed_read_is_logged) {
  given_failure(recvmsg_request, EAGAIN);
  when([] { igmp_network_socket_read_data(); });
  then({recvmsg_request, logged_error(reading, "Unable to read IGMP data.")});
}

TEST_F(igmp_reception, datagram_without_packet_information_is_dropped_silently) {
  Kernel.messages.push_back({encoded({query, "0.0.0.0"}), "198.51.100.50", std::nullopt});
  when([] { igmp_network_socket_read_data(); });
  then({recvmsg_request});
  EXPECT_EQ(br0->query_count, 0);
}

TEST_F(igmp_reception, ipv6_packet_information_is_not_taken_for_the_arrival_interface) {
  Kernel.messages.push_back({encoded({query, "0.0.0.0"}), "198.51.100.50", 3}); // no destination: IPv6 record
  when([] { igmp_network_socket_read_data(); });
  then({recvmsg_request});
  EXPECT_EQ(br0->query_count, 0);
}

// One control record with packet information for br0, of another kind or length.
std::vector<std::uint8_t> control_record(int level, int type, std::size_t length) {
  in_pktinfo info{};
  info.ipi_ifindex = 3;
  cmsghdr control{};
  control.cmsg_len = CMSG_LEN(length);
  control.cmsg_level = level;
  control.cmsg_type = type;
  std::vector<std::uint8_t> bytes(CMSG_SPACE(length), 0);
  std::memcpy(bytes.data(), &control, sizeof(control));
  std::memcpy(bytes.data() + CMSG_LEN(0), &info, std::min(length, sizeof(info)));
  return bytes;
}

TEST_F(igmp_reception, only_whole_packet_information_names_the_arrival_interface) {
  const struct {
    int level;
    int type;
    std::size_t length;
    bool is_taken;
  } rows[] = {
      {IPPROTO_IP, IP_PKTINFO, sizeof(in_pktinfo), true},
      {IPPROTO_IP, IP_PKTINFO, sizeof(in_pktinfo) - 4, false},
      {IPPROTO_IP, IP_TTL, sizeof(in_pktinfo), false},
      {SOL_SOCKET, IP_PKTINFO, sizeof(in_pktinfo), false},
  };
  for (const auto &row : rows) {
    message given{encoded({leave, "239.9.9.9"}), "198.51.100.50", std::nullopt};
    given.control = control_record(row.level, row.type, row.length);
    Kernel.messages.push_back(given);
    const int before = br0->leave_count;
    when([] { igmp_network_socket_read_data(); });
    then_anything();
    EXPECT_EQ(br0->leave_count - before, row.is_taken ? 1 : 0) << row.level << " " << row.type << " " << row.length;
  }
}

TEST_F(igmp_reception, datagram_without_sender_is_logged_with_the_empty_address) {
  Kernel.messages.push_back({encoded({0x22, "0.0.0.0"}), "", 3, "239.1.2.3"});
  when([] { igmp_network_socket_read_data(); });
  then({recvmsg_request, received_line("0.0.0.0", "239.1.2.3", 3)});
}

TEST_F(igmp_reception, datagram_from_upstream_is_skipped) {
  when_received({query, "0.0.0.0"}, 2);
  then({
      recvmsg_request,
      received_line("198.51.100.50", "224.0.0.1", 2),
      logged_debug(reading, "Skip IGMP packet from upstream interface: 2."),
  });
  EXPECT_EQ(wan0->query_count, 0);
}

TEST_F(igmp_reception, datagram_from_an_unknown_interface_is_an_error) {
  when_received({v2_report, "239.1.2.3"}, 77);
  then({
      recvmsg_request,
      received_line("198.51.100.50", "224.0.0.1", 77),
      logged_error(reading, "Unable to find interface: 77"),
  });
}

// A VIF number is the interface's index, or -1 where the kernel refused it; only the index identifies an arrival
// interface.
TEST_F(igmp_reception, interfaces_are_recognised_by_their_index_whatever_their_vif) {
  for (const int vif_index : {-1, 7}) {
    wan0->vif_index = vif_index;
    br0->vif_index = vif_index;
    const int before = br0->leave_count;
    when_received({leave, "239.9.9.9"}, 3);
    then_in_order({logged_debug("igmp_router_leave_handler", "No group 239.9.9.9 exist to leave.")});
    EXPECT_EQ(br0->leave_count, before + 1);
    when_received({leave, "239.9.9.9"}, 2);
    then_in_order({logged_debug(reading, "Skip IGMP packet from upstream interface: 2.")});
    when_received({leave, "239.9.9.9"}, vif_index);
    then_in_order({logged_error(reading, "Unable to find interface: " + std::to_string(vif_index))});
  }
}

TEST_F(igmp_reception, upstream_that_is_not_there_matches_nothing) {
  IgmpRouter.upstream_interface = nullptr;
  when_received({0x22, "0.0.0.0"}, 0);
  then({
      recvmsg_request,
      received_line("198.51.100.50", "224.0.0.1", 0),
      logged_error(reading, "Unable to find interface: 0"),
  });
  IgmpRouter.upstream_interface = wan0;
}

TEST_F(igmp_reception, messages_of_eight_and_of_twelve_bytes_and_more_are_accepted) {
  for (int bytes = 0; bytes <= 20; ++bytes) {
    const bool is_accepted = bytes == 8 || bytes >= 12;
    const int before = br0->leave_count;
    igmp_datagram datagram{leave, "239.9.9.9"};
    datagram.message_bytes = bytes;
    when_received(datagram);
    EXPECT_EQ(br0->leave_count - before, is_accepted ? 1 : 0) << bytes;
    if (is_accepted) {
      then_arrival_and({logged_debug(reading, "Received Leave Report."),
                        logged_debug("igmp_router_leave_handler", "No group 239.9.9.9 exist to leave.")});
    } else {
      then_arrival_and(
          {logged_error(reading, "Rxed IGMP pkt:" + std::to_string(20 + bytes) + " bytes is less than MIN length.")});
    }
  }
}

TEST_F(igmp_reception, header_options_are_passed_over) {
  for (const int words : {5, 6, 15}) {
    igmp_datagram datagram{leave, "239.9.9.9"};
    datagram.header_words = words;
    when_received(datagram);
    then_in_order({logged_debug("igmp_router_leave_handler", "No group 239.9.9.9 exist to leave.")});
  }
}

TEST_F(igmp_reception, header_longer_than_the_datagram_is_too_short_a_message) {
  igmp_datagram datagram{leave, "239.9.9.9"};
  datagram.header_words = 15;
  datagram.message_bytes = -20;
  when_received(datagram);
  then_arrival_and({logged_error(reading, "Rxed IGMP pkt:40 bytes is less than MIN length.")});
}

TEST_F(igmp_reception, datagram_of_any_size_is_read_within_its_buffer) {
  for (const std::size_t size : {0u, 1u, 19u, 20u, 1599u, 1600u, 1601u, 3000u}) {
    for (const int first_byte : {0x40, 0x45, 0x4f, 0xff}) {
      std::vector<std::uint8_t> bytes(size, 0xff);
      if (size > 0) {
        bytes[0] = static_cast<std::uint8_t>(first_byte);
      }
      Kernel.messages.push_back({bytes, "198.51.100.50", 3, "224.0.0.1"});
      when([] { igmp_network_socket_read_data(); });
      then_anything();
    }
  }
  EXPECT_EQ(length(br0->groups), 0);
}

TEST_F(igmp_reception, buffer_offered_to_the_kernel_holds_1600_zeros) {
  for (int i = 0; i < 2; ++i) { // the second one where the first datagram was
    Kernel.messages.push_back({std::vector<std::uint8_t>(1600, 0xff), "198.51.100.50", 3, "224.0.0.1"});
    when([] { igmp_network_socket_read_data(); });
    EXPECT_EQ(Kernel.receive_buffer, std::vector<std::uint8_t>(1600, 0));
  }
  then_anything();
}

TEST_F(igmp_reception, other_protocol_is_dumped_and_dropped) {
  igmp_datagram datagram{v2_report, "239.1.2.3", "10.11.12.13"};
  datagram.protocol = 0; // as in the kernel's notices
  when_received(datagram);
  then_arrival_and(
      {
          "| ",
          "| 0x00000000:  45 00 00 00 00 00 00 00  00 00 00 00 0a 0b 0c 0d ",
          "| 0x00000010:  00 00 00 00 ",
          logged_debug(reading, "it is not igmp packet."),
      },
      "10.11.12.13");
  EXPECT_EQ(br0->join_count, 0);
}

TEST_F(igmp_reception, length_is_looked_at_before_the_protocol) {
  igmp_datagram datagram{v2_report, "239.1.2.3"};
  datagram.protocol = 17;
  datagram.message_bytes = 10;
  when_received(datagram);
  then_arrival_and({logged_error(reading, "Rxed IGMP pkt:30 bytes is less than MIN length.")});
}

TEST_F(igmp_reception, unknown_types_and_version_3_reports_are_dropped_silently) {
  for (const int type : {0x00, 0x10, 0x13, 0x22, 0xff}) {
    igmp_datagram datagram{type, "239.1.2.3"};
    datagram.message_bytes = 16;
    when_received(datagram);
    then(arrival());
  }
  EXPECT_EQ(br0->query_count + br0->join_count + br0->leave_count, 0);
}

TEST_F(igmp_reception, checksum_is_not_looked_at) {
  std::vector<std::uint8_t> bytes = encoded({leave, "239.9.9.9"});
  bytes[22] = 0xde;
  bytes[23] = 0xad;
  Kernel.messages.push_back({bytes, "198.51.100.50", 3, "224.0.0.2"});
  when([] { igmp_network_socket_read_data(); });
  then_anything();
  EXPECT_EQ(br0->leave_count, 1);
}

TEST_F(igmp_reception, each_type_reaches_its_handler) {
  when_received({v1_report, "239.1.1.1"});
  then_in_order({
      logged_debug(reading, "Received Version 1 Membership Report."),
      logged_debug("igmp_router_version1_report_handler",
                   "Interface: br0 Group: " + octets_text("239.1.1.1") + " State = Version 1 Members present state."),
  });
  when_received({v2_report, "239.1.1.2"});
  then_in_order({logged_debug(reading, "Received Version 2 Membership Report.")});
  when_received({leave, "239.1.1.2"});
  then_in_order({logged_debug(reading, "Received Leave Report.")});
  when_received({query, "0.0.0.0"});
  then_in_order({logged_debug(reading, "Received Membership Query.")});
  EXPECT_EQ(br0->join_count, 2);
  EXPECT_EQ(br0->leave_count, 1);
  EXPECT_EQ(br0->query_count, 1);
  EXPECT_EQ(lan1->join_count + lan1->leave_count + lan1->query_count, 0);
}

TEST_F(igmp_reception, query_from_a_lower_word_takes_the_querier_role) {
  br0->query_timer = 77;
  const std::string sender = lower_than_br0();
  ASSERT_LT(word(sender), br0->address);
  when_received({query, "0.0.0.0", sender});
  then_arrival_and({logged_debug(reading, "Received Membership Query."),
                    logged_debug(electing, "Received Query from " + octets_text(sender) +
                                               " on interface br0 moving to NonQuerier.")},
                   sender);
  EXPECT_EQ(br0->is_querier, 0);
  EXPECT_EQ(br0->query_timer, 0);
  EXPECT_EQ(br0->other_querier_timer, 300);
  EXPECT_EQ(br0->query_count, 1);
}

TEST_F(igmp_reception, proxy_forced_to_be_non_querier_keeps_the_role) {
  IgmpRouter.non_querier = 1;
  br0->is_querier = 0;
  br0->query_timer = 77;
  br0->other_querier_timer = 5;
  when_received({query, "0.0.0.0", lower_than_br0()});
  then_anything();
  EXPECT_EQ(br0->is_querier, 1);
  EXPECT_EQ(br0->other_querier_timer, 0);
  EXPECT_EQ(br0->query_timer, 77);
}

TEST_F(igmp_reception, query_from_an_equal_or_higher_word_ends_the_wait_and_changes_no_role) {
  for (const std::string &sender : {higher_than_br0(), std::string("198.51.100.3")}) {
    for (const int role : {0, 1}) {
      br0->is_querier = role;
      br0->other_querier_timer = 200;
      when_received({query, "239.1.2.3", sender}); // a group-specific query counts like a general one
      then_arrival_and({logged_debug(reading, "Received Membership Query."),
                        logged_debug(electing, "Received Query from " + octets_text(sender) +
                                                   " on interface br0 but remain Querier.")},
                       sender);
      EXPECT_EQ(br0->is_querier, role);
      EXPECT_EQ(br0->other_querier_timer, 0);
    }
  }
}

TEST_F(igmp_reception, election_compares_the_ip_headers_source) {
  // The name that recvmsg gives is only logged.
  Kernel.messages.push_back({encoded({query, "0.0.0.0", higher_than_br0()}), lower_than_br0(), 3, "224.0.0.1"});
  when([] { igmp_network_socket_read_data(); });
  then_anything();
  EXPECT_EQ(br0->is_querier, 1);
}

} // namespace

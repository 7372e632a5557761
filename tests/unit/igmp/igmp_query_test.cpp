#include "igmp/igmp_query.h"

#include "fixture.h"
#include "tests/support/request_text.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace {

using namespace scripted;

constexpr char group_address[] = "239.1.2.3";

struct igmp_sending : igmp_fixture {
  std::vector<std::uint8_t> sent_for(const std::string &group, int code) {
    when([&] { igmp_router_send_query(br0, static_cast<std::uint8_t>(code), word(group)); });
    then({"sendto(br0, 8 bytes) to=" + group + " port=0"});
    return Kernel.frames.back();
  }
};

// Internet checksum in the order of the wire, carries folded to the end.
std::uint32_t receiver_sum(const std::vector<std::uint8_t> &message) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < message.size(); i += 2) {
    sum += static_cast<std::uint32_t>(message[i] << 8 | message[i + 1]);
  }
  while (sum > 0xffff) {
    sum = (sum >> 16) + (sum & 0xffff);
  }
  return sum;
}

TEST_F(igmp_sending, group_query_goes_to_its_group) {
  const std::vector<std::uint8_t> message = sent_for(group_address, 10);
  EXPECT_EQ(hex_text(message.data(), message.size()), "110afdf0ef010203");
}

TEST_F(igmp_sending, receivers_find_the_checksum_good) {
  for (int i = 0; i < 256; ++i) {
    const std::string group =
        "2" + std::to_string(24 + i % 16) + "." + std::to_string(i) + ".77." + std::to_string(255 - i);
    EXPECT_EQ(receiver_sum(sent_for(group, 10)), 0xffffu) << group;
  }
}

TEST_F(igmp_sending, sum_that_carries_twice_is_folded_once) {
  // Type and code, then two words of the group that bring the sum of native words to 0x1ffff.
  const std::array<std::uint8_t, 2> first{0x11, 10};
  std::uint16_t start;
  std::memcpy(&start, first.data(), sizeof(start));
  std::array<std::uint16_t, 2> words{};
  words[0] = 0xfefe;
  words[1] = static_cast<std::uint16_t>(0x1ffff - start - words[0]);
  std::uint32_t group;
  std::memcpy(&group, words.data(), sizeof(group));
  const std::vector<std::uint8_t> message = sent_for(wire_text(group), 10);
  EXPECT_EQ(hex_text(&message[2], 2), "ffff"); // 0x1ffff becomes 0x10000, whose low half is complemented
}

TEST_F(igmp_sending, non_querier_sends_nothing) {
  br0->is_querier = 0;
  when([&] { igmp_router_send_query(br0, 10, word(group_address)); });
  then({});
}

TEST_F(igmp_sending, refused_query_is_logged_with_its_reason) {
  given_failure("sendto(br0", ENETUNREACH);
  when([&] { igmp_router_send_query(br0, 100, InAddrAny); });
  then({
      "sendto(br0, 8 bytes) to=" + wire_text(IgmpAllHosts) + " port=0",
      logged_error("igmp_router_send_query", "Unable to send query ErrorNumber:" + std::to_string(ENETUNREACH) + "."),
  });
}

} // namespace

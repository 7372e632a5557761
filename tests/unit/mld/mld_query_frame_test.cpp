// The frames as they go out, byte by byte. The proxy is querier with this address and this hardware address:
//
//   br0 (3)  fe80::3  02:00:5e:10:00:01
#include "mld/mld_query_frame.h"

#include "core/settings.h"
#include "fixture.h"
#include "mld/mld_query.h"
#include "tests/support/request_text.h"

namespace {

using namespace scripted;

using byte_string = std::vector<std::uint8_t>;

// RFC 4443, section 2.3, and RFC 8200, section 8.1, as a receiver would write them down: the whole pseudo-header in
// memory, the words added up in 64 bits. `message` is the ICMPv6 message as it stands in the frame.
std::uint16_t receivers_checksum(const byte_string &source, const byte_string &destination, byte_string message) {
  message[2] = 0;
  message[3] = 0;
  byte_string summed = source;
  summed.insert(summed.end(), destination.begin(), destination.end());
  for (const int shift : {24, 16, 8, 0}) {
    summed.push_back(static_cast<std::uint8_t>(message.size() >> shift));
  }
  summed.insert(summed.end(), {0, 0, 0, 58});
  summed.insert(summed.end(), message.begin(), message.end());
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < summed.size(); ++i) {
    sum += static_cast<std::uint64_t>(summed[i]) << (i % 2 == 0 ? 8 : 0);
  }
  while (sum > 0xffff) {
    sum = sum / 0x10000 + sum % 0x10000;
  }
  const std::uint64_t checksum = 0xffff - sum;
  return static_cast<std::uint16_t>(checksum != 0 ? checksum : 0xffff);
}

byte_string slice(const byte_string &bytes, std::size_t from, std::size_t length) {
  return byte_string(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                     bytes.begin() + static_cast<std::ptrdiff_t>(from + length));
}

std::string hex(const byte_string &bytes) { return hex_text(bytes.data(), bytes.size()); }

struct field {
  const char *name;
  byte_string bytes;
};

struct mld_query_frame : mld_fixture {
  mld_query_frame() { LanMac = {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}; }

  // Sends the group's pending query with these sources, which have all run out.
  void when_asked_for_sources(const std::string &group, const lines &sources) {
    mld_group *asked = given_group(br0, group, sources);
    for (int i = 0; i < asked->source_count; ++i) {
      asked->sources[static_cast<std::size_t>(i)].source_timer = 0;
    }
    given_checking(asked, 1, 0);
    when([&] { mld_router_v2_send_query_more_src(br0, asked); });
    then_anything();
  }

  void when_asked(const ipv6_address &group) {
    when([&] { mld_router_v2_send_query(br0, 100, group); });
    then_anything();
  }

  void then_frame_is(std::size_t frame_bytes, const std::vector<field> &fields) {
    ASSERT_EQ(Kernel.frames.size(), 1u);
    const byte_string &frame = Kernel.frames[0];
    ASSERT_EQ(frame.size(), frame_bytes);
    std::size_t at = 0;
    for (const field &one : fields) {
      ASSERT_LE(at + one.bytes.size(), frame.size());
      EXPECT_EQ(hex(slice(frame, at, one.bytes.size())), hex(one.bytes)) << one.name << " at byte " << at;
      at += one.bytes.size();
    }
    EXPECT_EQ(at, frame.size()) << "fields and frame end together";
    then_checksum_is_right();
  }

  void then_checksum_is_right() {
    const byte_string &frame = Kernel.frames.back();
    const std::uint16_t computed =
        receivers_checksum(slice(frame, 22, 16), slice(frame, 38, 16), slice(frame, 62, frame.size() - 62));
    EXPECT_EQ(hex(slice(frame, 64, 2)),
              hex({static_cast<std::uint8_t>(computed >> 8), static_cast<std::uint8_t>(computed)}));
  }
};

// 2001:db8::N
field source_field(std::uint8_t last) {
  return {"source", {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last}};
}

TEST_F(mld_query_frame, general_query_is_a_frame_of_90_bytes) {
  when_asked(In6AddrAny);
  then_frame_is(90, {
                        {"destination MAC", {0x33, 0x33, 0x00, 0x00, 0x00, 0x01}},
                        {"source MAC", {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}},
                        {"EtherType", {0x86, 0xdd}},
                        {"version and traffic class", {0x60}},
                        {"traffic class and flow label", {0x00, 0x00, 0x00}},
                        {"payload length", {0x00, 36}},
                        {"next header: hop-by-hop options", {0}},
                        {"hop limit", {1}},
                        {"source", {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x03}},
                        {"destination", {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}},
                        {"next header: ICMPv6", {58}},
                        {"header extension length", {0}},
                        {"Router Alert: MLD", {5, 2, 0, 0}},
                        {"PadN", {1, 0}},
                        {"type: query", {130}},
                        {"code", {0}},
                        {"checksum", {0x75, 0xd4}},
                        {"maximum response code", {0x07, 0xd0}},
                        {"reserved", {0, 0}},
                        {"multicast address", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
                        {"S flag and robustness", {0x02}},
                        {"query interval", {125}},
                        {"number of sources", {0, 0}},
                    });
}

TEST_F(mld_query_frame, query_for_one_source_is_a_frame_of_106_bytes) {
  when_asked_for_sources("ff0e::1:2:3", {"2001:db8::1"});
  then_frame_is(106, {
                         {"destination MAC", {0x33, 0x33, 0x00, 0x02, 0x00, 0x03}},
                         {"source MAC", {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}},
                         {"EtherType", {0x86, 0xdd}},
                         {"version and traffic class", {0x60}},
                         {"traffic class and flow label", {0x00, 0x00, 0x00}},
                         {"payload length", {0x00, 52}},
                         {"next header: hop-by-hop options", {0}},
                         {"hop limit", {1}},
                         {"source", {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x03}},
                         {"destination", {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}},
                         {"next header: ICMPv6", {58}},
                         {"header extension length", {0}},
                         {"Router Alert: MLD", {5, 2, 0, 0}},
                         {"PadN", {1, 0}},
                         {"type: query", {130}},
                         {"code", {0}},
                         {"checksum", {0x48, 0xf4}},
                         {"maximum response code", {0x07, 0xd0}},
                         {"reserved", {0, 0}},
                         {"multicast address", {0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 3}},
                         {"S flag and robustness", {0x02}},
                         {"query interval", {125}},
                         {"number of sources", {0, 1}},
                         source_field(1),
                     });
}

TEST_F(mld_query_frame, query_for_ten_sources_is_a_frame_of_250_bytes) {
  when_asked_for_sources("ff0e::1:2:3", {"2001:db8::1", "2001:db8::2", "2001:db8::3", "2001:db8::4", "2001:db8::5",
                                         "2001:db8::6", "2001:db8::7", "2001:db8::8", "2001:db8::9", "2001:db8::a"});
  then_frame_is(250, {
                         {"destination MAC", {0x33, 0x33, 0x00, 0x02, 0x00, 0x03}},
                         {"source MAC", {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}},
                         {"EtherType", {0x86, 0xdd}},
                         {"version and traffic class", {0x60}},
                         {"traffic class and flow label", {0x00, 0x00, 0x00}},
                         {"payload length", {0x00, 196}},
                         {"next header: hop-by-hop options", {0}},
                         {"hop limit", {1}},
                         {"source", {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x03}},
                         {"destination", {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}},
                         {"next header: ICMPv6", {58}},
                         {"header extension length", {0}},
                         {"Router Alert: MLD", {5, 2, 0, 0}},
                         {"PadN", {1, 0}},
                         {"type: query", {130}},
                         {"code", {0}},
                         {"checksum", {0xac, 0xa2}},
                         {"maximum response code", {0x07, 0xd0}},
                         {"reserved", {0, 0}},
                         {"multicast address", {0xff, 0x0e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 3}},
                         {"S flag and robustness", {0x02}},
                         {"query interval", {125}},
                         {"number of sources", {0, 10}},
                         source_field(1),
                         source_field(2),
                         source_field(3),
                         source_field(4),
                         source_field(5),
                         source_field(6),
                         source_field(7),
                         source_field(8),
                         source_field(9),
                         source_field(10),
                     });
}

TEST_F(mld_query_frame, group_query_names_the_group_but_goes_to_all_nodes) {
  when_asked(address("ff0e::1:2:3"));
  const byte_string &frame = Kernel.frames.at(0);
  EXPECT_EQ(frame.size(), 90u);
  EXPECT_EQ(hex(slice(frame, 0, 6)), "333300020003");
  EXPECT_EQ(hex(slice(frame, 38, 16)), "ff020000000000000000000000000001");
  EXPECT_EQ(hex(slice(frame, 70, 16)), "ff0e0000000000000000000100020003");
  then_checksum_is_right();
}

TEST_F(mld_query_frame, hardware_address_is_of_the_group_or_of_all_nodes) {
  EXPECT_EQ(mld_query_destination(In6AddrAny), (mac_address{0x33, 0x33, 0, 0, 0, 1}));
  EXPECT_EQ(mld_query_destination(address("ff0e::1:2:3")), (mac_address{0x33, 0x33, 0, 2, 0, 3}));
  EXPECT_EQ(mld_query_destination(address("ff3e::8765:4321")), (mac_address{0x33, 0x33, 0x87, 0x65, 0x43, 0x21}));
}

// Hosts may take up to two seconds to answer, no matter what the caller or the pending query asks for.
TEST_F(mld_query_frame, response_time_of_the_caller_is_not_sent) {
  for (const std::uint8_t max_resp : byte_string{0, 10, 100, 255}) {
    when([&] { mld_router_v2_send_query(br0, max_resp, In6AddrAny); });
    EXPECT_EQ(hex(slice(Kernel.frames.back(), 66, 2)), "07d0");
    EXPECT_EQ(hex(slice(Kernel.frames.back(), 86, 2)), "027d");
  }
  then_anything();
}

TEST_F(mld_query_frame, checksum_of_zero_goes_out_as_ones) {
  br0->link_local = address("fe80::75d7"); // chosen so that everything adds up to ffff
  when_asked(In6AddrAny);
  EXPECT_EQ(hex(slice(Kernel.frames.at(0), 64, 2)), "ffff");
  then_checksum_is_right();
}

TEST(mld_checksum_sum, adds_words_folds_carries_and_pads_an_odd_byte) {
  const auto sum = [](const byte_string &bytes, std::uint32_t start = 0) {
    return mld_ones_complement_sum(bytes, start);
  };
  EXPECT_EQ(sum({}), 0);
  EXPECT_EQ(sum({0x12, 0x34}), 0x1234);
  EXPECT_EQ(sum({0x12}), 0x1200);
  EXPECT_EQ(sum({0x12, 0x34, 0x56}), 0x1234 + 0x5600);
  EXPECT_EQ(sum({0xff, 0xff, 0x00, 0x01}), 1);
  EXPECT_EQ(sum({0xff, 0xff, 0xff, 0xff}), 0xffff);
  EXPECT_EQ(sum({0xff, 0xff, 0xff, 0xff, 0x00, 0x01}), 1) << "the first fold carries again";
  EXPECT_EQ(sum({0xff, 0xff}, 0xffff), 0xffff);
  EXPECT_EQ(sum(byte_string(1600, 0xff)), 0xffff);
}

TEST(mld_checksum_sum, agrees_with_a_receiver_for_messages_of_any_length) {
  byte_string header(40);
  for (std::size_t i = 0; i < header.size(); ++i) {
    header[i] = static_cast<std::uint8_t>(0xf9 - 7 * i);
  }
  byte_string message{130, 0, 0, 0};
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(mld_checksum(header.data(), 58, message),
              receivers_checksum(slice(header, 8, 16), slice(header, 24, 16), message))
        << message.size();
    message.push_back(static_cast<std::uint8_t>(251 * i + 17));
  }
}

} // namespace

#include "mld/mld_record.h"

#include "fixture.h"

namespace {

using namespace scripted;

const std::vector<std::uint8_t> two_sources = {
    4,    7,                                                    // type, auxiliary length
    0,    2,                                                    // number of sources
    0xff, 0x0e, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, // group
    0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, // first source
    0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, // second source
};

TEST(mld_record_bytes, every_field_is_read_at_its_place) {
  std::vector<std::uint8_t> bytes = two_sources;
  const mld_record record{bytes};
  EXPECT_EQ(mld_record_kind(record), MLD2_CHANGE_TO_EXCLUDE);
  EXPECT_EQ(mld_record_group(record), address("ff0e::1"));
  EXPECT_EQ(mld_record_claimed_sources(record), 2u);
  EXPECT_EQ(mld_record_source_count(record), 2u);
  EXPECT_EQ(mld_record_source(record, 0), address("2001:db8::1"));
  EXPECT_EQ(mld_record_source(record, 1), address("2001:db8::2"));
}

TEST(mld_record_bytes, number_of_sources_is_in_network_order) {
  std::vector<std::uint8_t> bytes = two_sources;
  bytes[2] = 0x12;
  bytes[3] = 0x34;
  EXPECT_EQ(mld_record_claimed_sources(mld_record{bytes}), 0x1234u);
}

TEST(mld_record_bytes, sources_beyond_the_bytes_are_not_there) {
  std::vector<std::uint8_t> bytes = two_sources;
  bytes[2] = 0xff;
  bytes[3] = 0xff;
  const mld_record record{bytes};
  EXPECT_EQ(mld_record_claimed_sources(record), 65535u);
  EXPECT_EQ(mld_record_source_count(record), 2u);
  EXPECT_EQ(mld_record_source_count(mld_record{record.bytes.first(51)}), 1u); // one byte short of the second
  EXPECT_EQ(mld_record_source_count(mld_record{record.bytes.first(20)}), 0u);
}

TEST(mld_record_bytes, replaced_source_is_written_into_the_message) {
  std::vector<std::uint8_t> bytes = two_sources;
  mld_record_set_source(mld_record{bytes}, 1, address("2001:db8::77"));
  std::vector<std::uint8_t> expected = two_sources;
  expected[51] = 0x77;
  EXPECT_EQ(bytes, expected);
}

TEST(mld_record_bytes, record_of_an_expired_source_is_whole) {
  std::vector<std::uint8_t> scratch(MLD_ONE_SOURCE_RECORD_BYTES + 1, 0xaa);
  const mld_record record =
      mld_make_one_source_record(scratch, MLD2_BLOCK_OLD_SOURCES, address("ff0e::1"), address("2001:db8::1"));
  const std::vector<std::uint8_t> expected{
      6,    0,                                                    // type, auxiliary length
      0,    1,                                                    // number of sources
      0xff, 0x0e, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, // group
      0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, // source
      0xaa,                                                       // behind the record
  };
  EXPECT_EQ(scratch, expected);
  EXPECT_EQ(record.bytes.size(), MLD_ONE_SOURCE_RECORD_BYTES);
}

TEST(mld_record_bytes, types_have_names) {
  EXPECT_STREQ(mld_record_kind_name(1), "MLD2_MODE_IS_INCLUDE");
  EXPECT_STREQ(mld_record_kind_name(2), "MLD2_MODE_IS_EXCLUDE");
  EXPECT_STREQ(mld_record_kind_name(3), "MLD2_CHANGE_TO_INCLUDE");
  EXPECT_STREQ(mld_record_kind_name(4), "MLD2_CHANGE_TO_EXCLUDE");
  EXPECT_STREQ(mld_record_kind_name(5), "MLD2_ALLOW_NEW_SOURCES");
  EXPECT_STREQ(mld_record_kind_name(6), "MLD2_BLOCK_OLD_SOURCES");
  EXPECT_STREQ(mld_record_kind_name(0), "");
  EXPECT_STREQ(mld_record_kind_name(7), "");
  EXPECT_STREQ(mld_record_kind_name(255), "");
}

} // namespace

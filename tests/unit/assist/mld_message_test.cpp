#include "mld_bytes.h"

namespace {

const std::string group = "ff3e::1:2:3";

std::vector<mld_record> all_records(mld_message &message) {
  std::vector<mld_record> read;
  mld_records records = records_of(message);
  for (mld_record record; next_record(records, record);) {
    read.push_back(record);
  }
  return read;
}

mld_query_fields fields_of(const mld_message &message) {
  mld_query_fields query{};
  EXPECT_TRUE(read_query(message, query));
  return query;
}

bool is_query(const mld_bytes &bytes) {
  mld_query_fields query;
  return read_query(message_of(bytes), query);
}

mld_message proper_query(const std::string &asked, const std::string &destination) {
  mld_message message = message_of(query_bytes(asked));
  message.sender = address("fe80::2");
  message.destination = address(destination);
  message.hop_limit = 1;
  message.has_router_alert = true;
  return message;
}

bool is_proper(const mld_message &message) { return is_proper_query(message, fields_of(message)); }

} // namespace

TEST(mld_message, records_are_read_one_after_the_other) {
  mld_message message = message_of(report_bytes({record_bytes(MLD2_BLOCK_OLD_SOURCES, group, {"2001:db8::1", "::"}),
                                                 record_bytes(MLD2_CHANGE_TO_INCLUDE, "ff0e::2")}));
  const std::vector<mld_record> records = all_records(message);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(mld_record_kind(records[0]), MLD2_BLOCK_OLD_SOURCES);
  EXPECT_EQ(mld_record_group(records[0]), address(group));
  EXPECT_EQ(mld_record_source_count(records[0]), 2U);
  EXPECT_EQ(mld_record_source(records[0], 0), address("2001:db8::1"));
  EXPECT_EQ(mld_record_source(records[0], 1), In6AddrAny);
  EXPECT_EQ(mld_record_kind(records[1]), MLD2_CHANGE_TO_INCLUDE);
  EXPECT_EQ(mld_record_group(records[1]), address("ff0e::2"));
}

TEST(mld_message, no_more_records_than_counted_are_read) {
  mld_bytes bytes =
      report_bytes({record_bytes(MLD2_ALLOW_NEW_SOURCES, group), record_bytes(MLD2_ALLOW_NEW_SOURCES, group)});
  bytes[MLD2_RECORD_COUNT_OFFSET + 1] = 1;
  mld_message message = message_of(bytes);
  EXPECT_EQ(all_records(message).size(), 1U);
}

TEST(mld_message, records_end_with_the_buffer) {
  mld_bytes bytes = report_bytes({record_bytes(MLD2_BLOCK_OLD_SOURCES, group)});
  bytes[MLD2_RECORD_COUNT_OFFSET] = 0xff;
  bytes[MLD2_FIRST_RECORD_OFFSET + 2] = 0xff;
  mld_message message = message_of(bytes);
  const std::vector<mld_record> records = all_records(message);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(mld_record_claimed_sources(records[0]), 0xff00U);
  EXPECT_EQ(mld_record_source_count(records[0]),
            (MLD_MESSAGE_BYTES - MLD2_FIRST_RECORD_OFFSET - MLD_RECORD_HEADER_BYTES) / IPV6_ADDRESS_BYTES);
}

TEST(mld_message, auxiliary_data_is_not_skipped) {
  mld_bytes record = record_bytes(MLD2_BLOCK_OLD_SOURCES, group);
  record[1] = 1;
  mld_message message = message_of(report_bytes({record, mld_bytes{MLD2_ALLOW_NEW_SOURCES, 0, 0, 0}}));
  const std::vector<mld_record> records = all_records(message);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(mld_record_kind(records[1]), MLD2_ALLOW_NEW_SOURCES);
}

TEST(mld_message, only_version_2_reports_have_records) {
  mld_message message = message_of(report_bytes({record_bytes(MLD2_BLOCK_OLD_SOURCES, group)}));
  message.bytes[0] = ICMPV6_MGM_REPORT;
  EXPECT_TRUE(all_records(message).empty());
}

TEST(mld_message, version_1_messages_name_their_group) {
  EXPECT_EQ(group_of(message_of(v1_bytes(ICMPV6_MGM_REDUCTION, group))), address(group));
}

TEST(mld_message, query_of_version_2_gives_its_fields) {
  const mld_message message = message_of(query_bytes(group, 1000, {"2001:db8::1", "2001:db8::2"}));
  const mld_query_fields query = fields_of(message);
  EXPECT_EQ(query.group, address(group));
  EXPECT_EQ(query.max_response_ms, 1000U);
  const mld_bytes sources = address_bytes("2001:db8::1") + address_bytes("2001:db8::2");
  EXPECT_TRUE(std::equal(query.sources.begin(), query.sources.end(), sources.begin(), sources.end()));
}

TEST(mld_message, long_response_times_are_floating_point_in_version_2_only) {
  EXPECT_EQ(fields_of(message_of(query_bytes(group, 0x7fff))).max_response_ms, 32767U);
  EXPECT_EQ(fields_of(message_of(query_bytes(group, 0x8000))).max_response_ms, 32768U);
  EXPECT_EQ(fields_of(message_of(query_bytes(group, 0xffff))).max_response_ms, 8387584U);
  EXPECT_EQ(fields_of(message_of(v1_bytes(ICMPV6_MGM_QUERY, group, 0xffff))).max_response_ms, 65535U);
}

TEST(mld_message, queries_of_wrong_length_are_none) {
  mld_bytes bytes = query_bytes(group, 1000, {"2001:db8::1"});
  EXPECT_TRUE(is_query(bytes));
  bytes.pop_back();
  EXPECT_FALSE(is_query(bytes));
  EXPECT_FALSE(is_query(v1_bytes(ICMPV6_MGM_QUERY, group) + mld_bytes{2}));
  EXPECT_FALSE(is_query({ICMPV6_MGM_QUERY, 0, 0, 0}));
  EXPECT_FALSE(is_query(v1_bytes(ICMPV6_MGM_REPORT, group)));
}

TEST(mld_message, proper_query_comes_from_the_link_and_is_sent_to_all_nodes_or_its_group) {
  EXPECT_TRUE(is_proper(proper_query("::", "ff02::1")));
  EXPECT_TRUE(is_proper(proper_query(group, "ff02::1")));
  EXPECT_TRUE(is_proper(proper_query(group, group)));
  EXPECT_FALSE(is_proper(proper_query(group, "ff3e::1:2:4")));
  EXPECT_FALSE(is_proper(proper_query("::", "fe80::1")));
  EXPECT_FALSE(is_proper(proper_query("::", "::")));
}

TEST(mld_message, forged_queries_are_not_proper) {
  mld_message message = proper_query("::", "ff02::1");
  message.hop_limit = 64;
  EXPECT_FALSE(is_proper(message));
  message = proper_query("::", "ff02::1");
  message.has_router_alert = false;
  EXPECT_FALSE(is_proper(message));
  for (const std::string sender : {"::", "2001:db8::1", "fec0::1", "ff02::2"}) {
    message = proper_query("::", "ff02::1");
    message.sender = address(sender);
    EXPECT_FALSE(is_proper(message)) << sender;
  }
}

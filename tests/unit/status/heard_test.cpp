// The companion's table of what it has heard.
#include "status/heard.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

std::array<std::uint8_t, 16> address(const char *written) {
  std::array<std::uint8_t, 16> bytes{};
  inet_pton(AF_INET6, written, bytes.data());
  return bytes;
}

void add(text &table, const heard_row &row) { add_bytes(table, reinterpret_cast<const char *>(&row), sizeof(row)); }

TEST(heard, rows_are_read_with_their_age) {
  text table;
  add(table, {});
  add(table, {5000, heard_kind::mldv1_report, 2, address("ff0e::1"), address("fe80::5")});
  add(table, {9000, heard_kind::own_query, 3, {}, {}});
  rows_of<heard_line> lines;
  parse_heard(lines, table, 7999);
  ASSERT_EQ(lines.count, 2U);
  EXPECT_EQ(lines.first[0].kind, heard_kind::mldv1_report);
  EXPECT_EQ(lines.first[0].index, 2U);
  EXPECT_STREQ(lines.first[0].group.data(), "ff0e::1");
  EXPECT_STREQ(lines.first[0].host.data(), "fe80::5");
  EXPECT_EQ(lines.first[0].seconds_ago, 2);
  EXPECT_STREQ(lines.first[1].host.data(), "::");
  EXPECT_EQ(lines.first[1].seconds_ago, 0) << "written while this was read";
  free_rows(lines);
  free_rows(table);
}

TEST(heard, rows_that_make_no_sense_and_half_ones_are_skipped) {
  text table;
  add(table, {5000, static_cast<heard_kind>(77), 2, {}, {}});
  add(table, {5000, heard_kind::own_query, 2, {}, {}});
  --table.count;
  rows_of<heard_line> lines;
  parse_heard(lines, table, 8000);
  EXPECT_EQ(lines.count, 0U);
  free_rows(lines);
  free_rows(table);
}

TEST(heard, process_without_a_table_has_none) {
  rows_of<heard_line> lines;
  EXPECT_FALSE(read_heard(lines, getpid()));
  EXPECT_FALSE(read_heard(lines, 0));
  free_rows(lines);
}

} // namespace

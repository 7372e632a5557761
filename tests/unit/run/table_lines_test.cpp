#include "run/table_lines.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> lines_of(const std::string &content) {
  const int file = memfd_create("table", 0);
  EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  table_lines table;
  EXPECT_TRUE(open_table(table, ("/proc/self/fd/" + std::to_string(file)).c_str()));
  std::vector<std::string> found;
  for (table_line line; next_table_line(table, line);) {
    found.emplace_back(line.data());
  }
  close_table(table);
  close(file);
  return found;
}

using lines = std::vector<std::string>;

} // namespace

TEST(table_lines, come_one_by_one_without_their_newlines) {
  EXPECT_EQ(lines_of("one\ntwo\n"), (lines{"one", "two"}));
  EXPECT_EQ(lines_of("\n\nlast"), (lines{"", "", "last"}));
  EXPECT_EQ(lines_of(""), lines{});
}

TEST(table_lines, are_whole_where_two_reads_meet) {
  lines wanted;
  std::string content;
  for (int i = 0; i < 300; ++i) {
    wanted.push_back("row " + std::to_string(i));
    content += wanted.back() + "\n";
  }
  EXPECT_EQ(lines_of(content), wanted);
}

TEST(table_lines, longer_than_their_place_are_cut_and_the_next_one_is_whole) {
  const std::string fits(sizeof(table_line) - 1, 'x');
  EXPECT_EQ(lines_of(fits + "\n" + fits + "y\nnext\n"), (lines{fits, fits, "next"}));
}

TEST(table_lines, of_a_table_that_is_not_there_leave_errno) {
  table_lines table;
  EXPECT_FALSE(open_table(table, "/proc/self/no-such-table"));
  EXPECT_EQ(errno, ENOENT);
}

#include "run/log_sink.h"

#include "run/log_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class log_sink : public testing::Test {
protected:
  void SetUp() override {
    folder = testing::TempDir() + "log_sink_XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    file = folder + "/log";
    own_error = dup(STDERR_FILENO);
  }

  void TearDown() override {
    close_log_sink();
    dup2(own_error, STDERR_FILENO);
    close(own_error);
    unsetenv("JOURNAL_STREAM");
    std::filesystem::remove_all(folder);
  }

  void lead_error_to(const std::string &path) {
    const int opened = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ASSERT_GE(opened, 0);
    dup2(opened, STDERR_FILENO);
    close(opened);
  }

  static std::string contents(const std::string &path) {
    std::ifstream stream(path);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
  }

  std::string folder;
  std::string file;
  int own_error = -1;
};

TEST_F(log_sink, journal_is_told_the_priority_of_each_line) {
  lead_error_to(file);
  struct stat status {};
  fstat(STDERR_FILENO, &status);
  setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)).c_str(), 1);
  ASSERT_TRUE(open_log_sink(run_options{}));
  write_log_line(log_origin::daemon, log_priority::error, "E: trouble");
  write_log_line(log_origin::supervisor, log_priority::information, "starts");
  write_log_line(log_origin::companion, log_priority::debug, "tarnwick-assist: works");
  EXPECT_EQ(contents(file), "<3>E: trouble\n<6>starts\n<7>tarnwick-assist: works\n");
}

TEST_F(log_sink, standard_error_that_is_not_the_journal_gets_plain_lines) {
  lead_error_to(file);
  setenv("JOURNAL_STREAM", "1:1", 1); // inherited, and led elsewhere since
  ASSERT_TRUE(open_log_sink(run_options{}));
  write_log_line(log_origin::daemon, log_priority::error, "E: trouble");
  write_log_line(log_origin::supervisor, log_priority::information, "starts");
  EXPECT_EQ(contents(file), "E: trouble\ntarnwick-run: starts\n");
}

TEST_F(log_sink, lines_of_one_batch_are_written_with_the_flush) {
  lead_error_to(file);
  ASSERT_TRUE(open_log_sink(run_options{}));
  append_log_line(log_origin::daemon, log_priority::debug, "one");
  append_log_line(log_origin::daemon, log_priority::debug, "two");
  EXPECT_EQ(contents(file), "");
  flush_log_lines();
  EXPECT_EQ(contents(file), "one\ntwo\n");
}

TEST_F(log_sink, more_than_a_batch_is_written_in_order) {
  lead_error_to(file);
  ASSERT_TRUE(open_log_sink(run_options{}));
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    const std::string line = std::to_string(i) + std::string(900, 'x');
    append_log_line(log_origin::daemon, log_priority::debug, line);
    expected += line + "\n";
  }
  flush_log_lines();
  EXPECT_EQ(contents(file), expected);
}

run_options with_file(const std::string &path, std::uint64_t bytes) {
  run_options options{};
  options.log_file = path.c_str();
  options.log_file_bytes = bytes;
  return options;
}

TEST_F(log_sink, lines_in_the_file_bear_their_time) {
  lead_error_to("/dev/null");
  ASSERT_TRUE(open_log_sink(with_file(file, 1000)));
  write_log_line(log_origin::supervisor, log_priority::information, "starts");
  EXPECT_TRUE(std::regex_match(contents(file), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d tarnwick-run: starts\n)")))
      << contents(file);
}

TEST_F(log_sink, file_that_cannot_be_had_is_told) {
  lead_error_to(folder + "/error");
  EXPECT_FALSE(open_log_sink(with_file(folder, 1000)));
  EXPECT_NE(contents(folder + "/error").find("cannot write the log to " + folder + ": Is a directory"),
            std::string::npos);
}

using log_file = log_sink;

TEST_F(log_file, full_file_becomes_its_own_predecessor_and_the_one_before_goes) {
  ASSERT_TRUE(open_log_file(file.c_str(), 20));
  append_to_log_file("first line\n");
  append_to_log_file("second\n");
  EXPECT_FALSE(std::filesystem::exists(file + ".1"));
  append_to_log_file("third\n");
  EXPECT_EQ(contents(file + ".1"), "first line\nsecond\n");
  EXPECT_EQ(contents(file), "third\n");
  append_to_log_file("a fourth line\n");
  append_to_log_file("fifth\n");
  EXPECT_EQ(contents(file + ".1"), "third\na fourth line\n");
  EXPECT_EQ(contents(file), "fifth\n");
  close_log_file();
}

TEST_F(log_file, file_of_an_earlier_run_is_gone_on_with_and_its_bytes_count) {
  std::ofstream(file) << "of an earlier run\n";
  ASSERT_TRUE(open_log_file(file.c_str(), 20));
  append_to_log_file("new\n");
  EXPECT_EQ(contents(file), "new\n");
  EXPECT_EQ(contents(file + ".1"), "of an earlier run\n");
  close_log_file();
}

TEST_F(log_file, predecessor_that_cannot_be_replaced_does_not_let_the_file_grow) {
  std::filesystem::create_directories(file + ".1/full");
  ASSERT_TRUE(open_log_file(file.c_str(), 20));
  append_to_log_file("first line\n");
  append_to_log_file("second line\n");
  EXPECT_EQ(contents(file), "second line\n");
  close_log_file();
}

TEST_F(log_file, batch_that_is_larger_than_the_bound_is_lost) {
  ASSERT_TRUE(open_log_file(file.c_str(), 20));
  append_to_log_file(std::string(21, 'x'));
  EXPECT_EQ(contents(file), "");
  close_log_file();
}

TEST_F(log_file, removed_file_is_made_anew) {
  ASSERT_TRUE(open_log_file(file.c_str(), 100));
  append_to_log_file("gone\n");
  std::filesystem::remove(file);
  append_to_log_file("here\n");
  EXPECT_EQ(contents(file), "here\n");
  close_log_file();
}

TEST_F(log_file, pipe_and_link_are_refused) {
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_FALSE(open_log_file(file.c_str(), 100));
  std::filesystem::remove(file);
  std::ofstream(folder + "/elsewhere") << "";
  std::filesystem::create_symlink(folder + "/elsewhere", file);
  EXPECT_FALSE(open_log_file(file.c_str(), 100));
  EXPECT_EQ(errno, ELOOP);
}

} // namespace

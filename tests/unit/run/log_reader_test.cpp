#include "log_fixture.h"
#include "run/end_reason.h"

#include <algorithm>

namespace {

TEST_F(log_reading, lines_pass_in_order_without_empty_ones) {
  daemon_prints("\n\n\n" + daemon_line('D', "one") + "\n\n" + daemon_line('E', "two") + "\n");
  read_log(reader);
  EXPECT_EQ(passed_on(), daemon_line('D', "one") + "\n" + daemon_line('E', "two") + "\n");
}

TEST_F(log_reading, line_that_comes_in_pieces_passes_once_it_is_whole) {
  const std::string line = daemon_line('D', "in pieces");
  for (const char letter : line) {
    daemon_prints(std::string(1, letter));
    read_log(reader);
    EXPECT_EQ(passed_on(), "");
  }
  daemon_prints("\nand");
  read_log(reader);
  EXPECT_EQ(passed_on(), line + "\n");
}

TEST_F(log_reading, line_of_the_longest_length_passes_whole_in_one_piece_or_two) {
  const std::string line = daemon_line('D', std::string(LONGEST_LOG_LINE - daemon_line('D', "").size(), 'x'));
  daemon_prints(line + "\n");
  read_log(reader);
  EXPECT_EQ(passed_on(), line + "\n");
  daemon_prints(line.substr(0, 500));
  read_log(reader);
  daemon_prints(line.substr(500) + "\n");
  read_log(reader);
  EXPECT_EQ(passed_on(), line + "\n");
}

TEST_F(log_reading, longer_line_is_cut_and_says_so_and_the_next_one_is_whole) {
  const std::string line = daemon_line('D', std::string(40'000, 'x'));
  const std::string mark = " ... (cut)";
  daemon_prints(line.substr(0, 30'000));
  read_log(reader);
  daemon_prints(line.substr(30'000) + "\n" + daemon_line('D', "next") + "\n");
  read_log(reader);
  EXPECT_EQ(passed_on(),
            line.substr(0, LONGEST_LOG_LINE - mark.size()) + mark + "\n" + daemon_line('D', "next") + "\n");
}

TEST_F(log_reading, what_is_not_printable_becomes_a_question_mark) {
  daemon_prints(daemon_line('D', std::string("a\x1b[2Jb\0c\td\x7f\xc2\x9b", 13)) + "\n");
  read_log(reader);
  EXPECT_EQ(passed_on(), daemon_line('D', "a?[2Jb?c?d???") + "\n");
}

TEST_F(log_reading, two_reports_in_a_moment_make_it_rest_and_one_does_not) {
  daemon_prints(daemon_line('D', "one") + "\n");
  read_log(reader);
  EXPECT_EQ(ms_until_log_rest_ends(reader, reader.read_at_ms), -1);
  EXPECT_EQ(awaited_log(reader, reader.read_at_ms), reader.descriptor);
  reader.read_at_ms -= LOG_REST_MS + 1000;
  daemon_prints(daemon_line('D', "a second later") + "\n");
  read_log(reader);
  EXPECT_EQ(ms_until_log_rest_ends(reader, reader.read_at_ms), -1);
  daemon_prints(daemon_line('D', "at once") + "\n");
  for (int tries = 0; tries < 1000 && reader.rests_until_ms == 0; ++tries) {
    read_log(reader); // again, where the machine stood still for longer than the rest
  }
  EXPECT_EQ(ms_until_log_rest_ends(reader, reader.read_at_ms), LOG_REST_MS);
  EXPECT_EQ(awaited_log(reader, reader.read_at_ms), -1);
  EXPECT_EQ(awaited_log(reader, reader.read_at_ms + LOG_REST_MS - 1), -1);
  EXPECT_EQ(ms_until_log_rest_ends(reader, reader.read_at_ms + LOG_REST_MS - 1), 1);
  EXPECT_EQ(awaited_log(reader, reader.read_at_ms + LOG_REST_MS), reader.descriptor);
  EXPECT_EQ(ms_until_log_rest_ends(reader, reader.read_at_ms + LOG_REST_MS), -1);
}

TEST_F(log_reading, it_does_not_rest_while_more_is_there) {
  const std::size_t more_than_two_reads_take = 400 * 1024;
  ASSERT_GE(fcntl(write_end, F_SETPIPE_SZ, 1024 * 1024), 1024 * 1024);
  daemon_prints(std::string(more_than_two_reads_take, 'x'));
  read_log(reader);
  reader.read_at_ms += 1000; // as if it had been just now, however slow the machine
  read_log(reader);
  EXPECT_EQ(ms_until_log_rest_ends(reader, reader.read_at_ms), -1);
  EXPECT_EQ(awaited_log(reader, reader.read_at_ms), reader.descriptor);
}

TEST_F(log_reading, end_of_the_daemon_passes_its_last_line_and_closes) {
  daemon_prints(daemon_line('E', "no newline behind it"));
  close(write_end);
  write_end = -1;
  close_log_reader(reader);
  EXPECT_EQ(passed_on(), daemon_line('E', "no newline behind it") + "\n");
  EXPECT_EQ(reader.descriptor, -1);
}

TEST_F(log_reading, reader_of_an_ended_daemon_does_not_wait_for_its_children) {
  daemon_prints(daemon_line('D', "a child still has the pipe"));
  close_log_reader(reader);
  EXPECT_EQ(passed_on(), daemon_line('D', "a child still has the pipe") + "\n");
  EXPECT_EQ(reader.descriptor, -1);
}

TEST_F(log_reading, every_error_is_noted_whatever_is_passed_on) {
  for (const log_choice choice : {log_choice::all, log_choice::info, log_choice::error, log_choice::none}) {
    clear_daemon_error();
    choose_log_lines(choice);
    daemon_prints(daemon_line('E', "trouble") + "\n" + daemon_line('D', "work") + "\n");
    read_log(reader);
    EXPECT_STREQ(DaemonError.text.data(), "trouble");
  }
}

TEST_F(log_reading, choice_decides_what_passes) {
  const std::string error = daemon_line('E', "trouble") + "\n";
  const std::string shell = "sh: killall: not found\n";
  const std::string harmless = "sh: 1: cannot create /proc/sys/net/ipv6/conf/all/mc_forwarding: Permission denied\n";
  const std::string matters = daemon_line('D', "Set group timer to 2") + "\n";
  const std::string work = daemon_line('D', "ngrec 1") + "\n";
  const auto passed_with = [&](log_choice choice) {
    choose_log_lines(choice);
    daemon_prints(error + shell + harmless + matters + work);
    read_log(reader);
    return passed_on();
  };
  EXPECT_EQ(passed_with(log_choice::all), error + shell + harmless + matters + work);
  EXPECT_EQ(passed_with(log_choice::info), error + shell + matters);
  EXPECT_EQ(passed_with(log_choice::error), error + shell);
  EXPECT_EQ(passed_with(log_choice::none), "");
}

TEST_F(log_reading, companion_is_heard_unless_nothing_is_chosen) {
  log_reader companion{};
  int companion_end = -1;
  ASSERT_TRUE(open_log_reader(companion, log_origin::companion, companion_end));
  for (const log_choice choice : {log_choice::all, log_choice::info, log_choice::error, log_choice::none}) {
    choose_log_lines(choice);
    ASSERT_EQ(write(companion_end, "tarnwick-assist: said\n", 22), 22);
    read_log(companion);
    EXPECT_EQ(passed_on(), choice == log_choice::none ? "" : "tarnwick-assist: said\n");
  }
  close(companion_end);
  close_log_reader(companion);
}

TEST_F(log_reading, two_hundred_lines_a_second_pass_and_one_says_how_many_did_not) {
  wait_for_a_new_second();
  for (int i = 0; i < 500; ++i) {
    daemon_prints(daemon_line('D', "line") + "\n");
  }
  read_log(reader);
  std::string lines = passed_on();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), MOST_LOG_LINES_A_SECOND);
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::int64_t now_ms = now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
  const int left_ms = ms_until_log_summary(now_ms);
  EXPECT_GE(left_ms, 0);
  EXPECT_LE(left_ms, 1000);
  write_due_log_summary(now_ms + left_ms);
  EXPECT_EQ(passed_on(), "tarnwick-run: 300 lines of the log were left out\n");
  EXPECT_EQ(ms_until_log_summary(now_ms + left_ms), -1);
}

TEST_F(log_reading, reader_that_hangs_is_not_waited_for) {
  wait_for_a_new_second();
  const std::string filling(4096, 'x');
  while (write(STDERR_FILENO, filling.data(), filling.size()) > 0) {
  }
  daemon_prints(daemon_line('D', "nobody reads this") + "\n");
  read_log(reader);
  EXPECT_EQ(take_lost_log_lines(), 1U);
}

} // namespace

// A reader whose lines come out of a pipe in the place of standard error.
#pragma once

#include "run/log_rate.h"
#include "run/log_reader.h"

#include <array>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

inline std::string daemon_line(char level, const std::string &message) {
  std::array<char, 64> front;
  std::snprintf(front.data(), front.size(), "%c:%-4s:%-36s#%4d: ", level, "mld", "mld_router_v2_leave_group", 196);
  return front.data() + message;
}

inline void wait_for_a_new_second() {
  // Lines of the test before count as well.
  const timespec little_more_than_a_second{1, 50'000'000};
  nanosleep(&little_more_than_a_second, nullptr);
}

class log_reading : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    own_error = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    ASSERT_TRUE(open_log_sink(run_options{}));
    choose_log_lines(log_choice::all);
    ASSERT_TRUE(open_log_reader(reader, log_origin::daemon, write_end));
  }

  void TearDown() override {
    close_log_sink();
    dup2(own_error, STDERR_FILENO);
    close(own_error);
    close(ends[0]);
    close(ends[1]);
    close(write_end);
    if (reader.descriptor >= 0) {
      close(reader.descriptor);
    }
  }

  void daemon_prints(const std::string &text) {
    ASSERT_EQ(write(write_end, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  std::string passed_on() {
    std::string all;
    std::array<char, 65536> bytes;
    for (ssize_t length = read(ends[0], bytes.data(), bytes.size()); length > 0;
         length = read(ends[0], bytes.data(), bytes.size())) {
      all.append(bytes.data(), static_cast<std::size_t>(length));
    }
    return all;
  }

  log_reader reader{};
  int write_end = -1;
  std::array<int, 2> ends{};
  int own_error = -1;
};

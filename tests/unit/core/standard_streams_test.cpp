#include "core/standard_streams.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Runs code in a process of its own, whose streams are open and may be ruined; true if the code returned true there.
bool is_true_in_a_child(const std::function<bool()> &code) {
  const pid_t child = fork();
  if (child == 0) {
    constexpr unsigned int patience_seconds = 20;
    alarm(patience_seconds); // a child that hangs fails
    while (open("/dev/null", O_RDWR) <= STDERR_FILENO) {
    }
    _exit(code() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool is_null_device(int descriptor) {
  struct stat status {};
  struct stat null_device {};
  return fstat(descriptor, &status) == 0 && stat("/dev/null", &null_device) == 0 &&
         status.st_rdev == null_device.st_rdev && S_ISCHR(status.st_mode);
}

int lowest_free_descriptor() {
  const int descriptor = open("/dev/null", O_RDONLY);
  close(descriptor);
  return descriptor;
}

// Whether a writer to a full stream is refused at once, and not kept waiting.
bool is_refused_when_full(int descriptor = STDOUT_FILENO) {
  const std::string block(4096, 'x');
  constexpr int more_blocks_than_fit = 10000;
  for (int i = 0; i < more_blocks_than_fit; ++i) {
    if (write(descriptor, block.data(), block.size()) == -1) {
      return errno == EAGAIN;
    }
  }
  return false;
}

TEST(standard_streams, closed_ones_are_filled_so_that_no_socket_takes_their_number) {
  const std::vector<int> closed_sets[] = {{0}, {1}, {2}, {0, 1}, {1, 2}, {0, 2}, {0, 1, 2}};
  for (const std::vector<int> &closed : closed_sets) {
    EXPECT_TRUE(is_true_in_a_child([&] {
      for (const int descriptor : closed) {
        close(descriptor);
      }
      protect_standard_streams();
      bool are_filled = lowest_free_descriptor() > STDERR_FILENO;
      for (const int descriptor : closed) {
        are_filled = are_filled && is_null_device(descriptor);
      }
      return are_filled;
    })) << closed.front()
        << " and " << closed.size() - 1 << " more";
  }
}

TEST(standard_streams, open_ones_are_left_and_no_descriptor_is_lost) {
  EXPECT_TRUE(is_true_in_a_child([] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
      return false;
    }
    const int before = lowest_free_descriptor();
    protect_standard_streams();
    return lowest_free_descriptor() == before && write(STDERR_FILENO, "x", 1) == 1;
  }));
}

TEST(standard_streams, reader_that_dies_does_not_end_the_writer) {
  EXPECT_TRUE(is_true_in_a_child([] {
    int ends[2];
    std::signal(SIGPIPE, SIG_DFL);
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
      return false;
    }
    protect_standard_streams();
    close(ends[0]);
    close(ends[1]);
    return write(STDOUT_FILENO, "x", 1) == -1 && errno == EPIPE;
  }));
}

TEST(standard_streams, reader_that_hangs_does_not_stop_the_writer_nor_change_the_pipe_for_others) {
  EXPECT_TRUE(is_true_in_a_child([] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
      return false;
    }
    protect_standard_streams();
    return is_refused_when_full() && (fcntl(ends[1], F_GETFL) & O_NONBLOCK) == 0;
  }));
}

TEST(standard_streams, reader_of_the_errors_that_hangs_does_not_stop_the_writer_either) {
  EXPECT_TRUE(is_true_in_a_child([] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
      return false;
    }
    protect_standard_streams();
    return is_refused_when_full(STDERR_FILENO);
  }));
}

TEST(standard_streams, pipe_holds_what_a_process_may_ask_for_without_privilege) {
  EXPECT_TRUE(is_true_in_a_child([] {
    constexpr int largest_pipe_bytes = 1 << 20; // /proc/sys/fs/pipe-max-size as the kernel sets it
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
      return false;
    }
    protect_standard_streams();
    return fcntl(STDOUT_FILENO, F_GETPIPE_SZ) == largest_pipe_bytes;
  }));
}

TEST(standard_streams, socket_whose_reader_hangs_does_not_stop_the_writer) {
  EXPECT_TRUE(is_true_in_a_child([] {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
      return false;
    }
    protect_standard_streams();
    return is_refused_when_full();
  }));
}

TEST(standard_streams, hanging_reader_of_another_users_pipe_does_not_stop_the_writer) {
  EXPECT_TRUE(is_true_in_a_child([] {
    constexpr uid_t other_user = 65534;
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
      return false;
    }
    if (geteuid() == 0 && setuid(other_user) != 0) {
      return false;
    }
    protect_standard_streams();
    return is_refused_when_full();
  }));
}

} // namespace

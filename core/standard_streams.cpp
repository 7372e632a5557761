#include "core/standard_streams.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int log_pipe_bytes = 1024 * 1024; // what a process may ask for without privilege (/proc/sys/fs/pipe-max-size)

void fill_closed_descriptors() {
  // open() takes the lowest free number, so each gap is filled in turn.
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
    descriptor = open("/dev/null", O_RDWR);
  }
  if (descriptor > STDERR_FILENO) {
    close(descriptor);
  }
}

bool has_reader_that_may_hang(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

// A pipe is opened anew: the flag would otherwise hold for everyone who shares the descriptor. A socket, such as a
// service manager's log, and a pipe of another user cannot be opened; there the flag is set on the shared description.
void write_without_waiting(int descriptor, const char *path) {
  fcntl(descriptor, F_SETPIPE_SZ, log_pipe_bytes);
  const int own = open(path, O_WRONLY | O_NONBLOCK);
  if (own >= 0) {
    dup2(own, descriptor);
    close(own);
  } else {
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
  }
}

} // namespace

void protect_standard_streams() {
  fill_closed_descriptors();
  std::signal(SIGPIPE, SIG_IGN);
  if (has_reader_that_may_hang(STDOUT_FILENO)) {
    write_without_waiting(STDOUT_FILENO, "/proc/self/fd/1");
  }
  if (has_reader_that_may_hang(STDERR_FILENO)) {
    write_without_waiting(STDERR_FILENO, "/proc/self/fd/2");
  }
}

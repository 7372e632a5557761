// What the daemon prints, in pieces of any size: the first byte says which lines are passed on, the second one where
// the output is cut.
#include "run/log_reader.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int PassedOn = -1; // stands in for standard error while lines are passed on

void fail(const char *what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// Printable lines, none longer than what the reader keeps and the supervisor's name in front of it.
void check_what_was_passed_on() {
  constexpr std::size_t longest = LONGEST_LOG_LINE + 64;
  static char bytes[1 << 20];
  const ssize_t length = pread(PassedOn, bytes, sizeof(bytes), 0);
  std::size_t column = 0;
  for (ssize_t i = 0; i < length; ++i) {
    const char letter = bytes[i];
    if (letter != '\n' && (letter < ' ' || letter > '~')) {
      fail("a control character was passed on");
    }
    column = letter == '\n' ? 0 : column + 1;
    if (column > longest) {
      fail("a line is too long");
    }
  }
  if (length > 0 && bytes[length - 1] != '\n') {
    fail("a line has no end");
  }
  if (ftruncate(PassedOn, 0) != 0 || lseek(PassedOn, 0, SEEK_SET) != 0) {
    fail("cannot empty the file");
  }
}

} // namespace

// Every look at the clock takes a second, so that no line is left out for its rate.
extern "C" int __wrap_clock_gettime(clockid_t, timespec *now) {
  static time_t seconds = 0;
  *now = {++seconds, 0};
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  PassedOn = memfd_create("passed on", MFD_CLOEXEC);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  choose_log_lines(static_cast<log_choice>(bytes[0] % 4));
  const std::size_t piece_bytes = std::size_t{bytes[1]} * 8 + 1;
  std::string_view text{reinterpret_cast<const char *>(bytes + 2), size - 2};
  const int own_error = dup(STDERR_FILENO);
  dup2(PassedOn, STDERR_FILENO);
  log_reader reader{};
  reader.descriptor = -1;
  reader.origin = log_origin::daemon;
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, piece_bytes);
    read_log(reader); // nothing but the clock
    take_log_bytes(reader, piece);
    text.remove_prefix(piece.size());
  }
  close_log_reader(reader);
  flush_log_lines();
  dup2(own_error, STDERR_FILENO);
  close(own_error);
  check_what_was_passed_on();
  return 0;
}

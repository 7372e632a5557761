// Preloaded into the daemon under test: it gets SIGTERM in the middle of its start-up, right after call number
// SIGNAL_AT_CALL, counted over all its requests to the kernel. Afterwards the number of start-up's calls is printed on
// standard error. The daemon itself knows nothing of it.

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

long calls = 0;

void count_call() {
  const char *text = std::getenv("SIGNAL_AT_CALL");
  ++calls;
  if (text != nullptr && calls == std::atol(text)) {
    std::raise(SIGTERM);
  }
}

int counted(long result) {
  count_call();
  return static_cast<int>(result);
}

} // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept { return counted(syscall(SYS_socket, domain, type, protocol)); }

int setsockopt(int socket, int level, int option, const void *value, socklen_t length) noexcept {
  return counted(syscall(SYS_setsockopt, socket, level, option, value, length));
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return counted(syscall(SYS_ioctl, descriptor, request, argument));
}

int pipe(int descriptors[2]) noexcept { return counted(syscall(SYS_pipe2, descriptors, 0)); }

// The last call of start-up.
int setitimer(__itimer_which_t which, const itimerval *wanted, itimerval *previous) noexcept {
  std::fprintf(stderr, "calls of start-up: %ld\n", calls + 1);
  return counted(syscall(SYS_setitimer, which, wanted, previous));
}
}

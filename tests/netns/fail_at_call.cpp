// Preloaded into tarnwick-run: call number FAIL_AT_CALL, counted over the functions below, fails with ENOMEM. The
// programs that it starts get a clean environment and are not affected. With FAIL_AT_CALL=0 it prints the number of
// calls on standard error at the end.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

long calls = 0;
const pid_t first_process = getpid();

long chosen_call() {
  const char *text = std::getenv("FAIL_AT_CALL");
  return text == nullptr ? 0 : std::atol(text);
}

bool is_chosen() {
  const bool fails = ++calls == chosen_call();
  if (fails) {
    errno = ENOMEM;
  }
  return fails;
}

template <typename function> function real(const char *name) {
  return reinterpret_cast<function>(dlsym(RTLD_NEXT, name));
}

struct at_end {
  ~at_end() {
    if (chosen_call() == 0 && getpid() == first_process) {
      std::fprintf(stderr, "calls: %ld\n", calls);
    }
  }
} AtEnd;

} // namespace

#define FAILING(result, failure, name, parameters, arguments)                                                          \
  result name parameters { return is_chosen() ? failure : real<result(*) parameters>(#name) arguments; }

extern "C" {

FAILING(int, -1, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))
FAILING(int, -1, setsockopt, (int socket, int level, int option, const void *value, socklen_t length) noexcept,
        (socket, level, option, value, length))
FAILING(int, -1, bind, (int socket, const sockaddr *address, socklen_t length) noexcept, (socket, address, length))
FAILING(int, -1, mkdir, (const char *path, mode_t mode) noexcept, (path, mode))
FAILING(int, -1, flock, (int descriptor, int operation) noexcept, (descriptor, operation))
FAILING(int, -1, pipe2, (int *descriptors, int flags) noexcept, (descriptors, flags))
FAILING(int, -1, signalfd, (int descriptor, const sigset_t *mask, int flags) noexcept, (descriptor, mask, flags))
FAILING(int, -1, rename, (const char *from, const char *to) noexcept, (from, to))
FAILING(pid_t, -1, fork, () noexcept, ())
FAILING(int, -1, poll, (pollfd * watched, nfds_t count, int timeout), (watched, count, timeout))
FAILING(FILE *, nullptr, fopen, (const char *path, const char *mode), (path, mode))
FAILING(ssize_t, -1, readlink, (const char *path, char *target, size_t size) noexcept, (path, target, size))

int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return is_chosen() ? -1 : real<int (*)(const char *, int, ...)>("open")(path, flags, mode);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return is_chosen() ? -1 : real<int (*)(int, unsigned long, ...)>("ioctl")(descriptor, request, argument);
}
}

#include "scripted_kernel.h"

#include "kernel_answers.h"
#include "request_text.h"
#include "scripted_run.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

// Declared by the linker for each wrapped call.
extern "C" {
int __real_socket(int, int, int);
int __real_setsockopt(int, int, int, const void *, socklen_t);
int __real_ioctl(int, unsigned long, ...);
unsigned int __real_if_nametoindex(const char *);
ssize_t __real_recvmsg(int, msghdr *, int);
ssize_t __real_sendto(int, const void *, std::size_t, int, const sockaddr *, socklen_t);
int __real_close(int);
int __real_open(const char *, int, ...);
int __real_unlink(const char *);
FILE *__real_fopen(const char *, const char *);
int __real_fclose(FILE *);
void *__real_malloc(std::size_t);
int __real_system(const char *);
pid_t __real_fork();
pid_t __real_setsid();
[[noreturn]] void __real_exit(int);
sighandler_t __real_signal(int, sighandler_t);
int __real_setitimer(int, const itimerval *, itimerval *);
int __real_pipe(int *);
int __real_select(int, fd_set *, fd_set *, fd_set *, timeval *);
ssize_t __real_read(int, void *, std::size_t);
ssize_t __real_write(int, const void *, std::size_t);
}

namespace scripted {

namespace {

const std::string if_inet6_path = "/proc/net/if_inet6";

std::string watched_text(int limit, const fd_set *readable) {
  std::string text;
  for (int descriptor = 0; descriptor < limit && descriptor < FD_SETSIZE; ++descriptor) {
    if (FD_ISSET(descriptor, readable)) {
      text += (text.empty() ? "" : ", ") + descriptor_text(descriptor);
    }
  }
  return text;
}

std::string open_flags_text(int flags) {
  const bool is_path = (flags & O_PATH) != 0;
  std::string text = is_path ? "O_PATH" : (flags & O_ACCMODE) == O_WRONLY ? "O_WRONLY" : "other mode";
  for (const auto &[bit, name] : {std::pair{O_CREAT, "O_CREAT"},
                                  {O_EXCL, "O_EXCL"},
                                  {O_TRUNC, "O_TRUNC"},
                                  {O_DIRECTORY, "O_DIRECTORY"},
                                  {O_NOFOLLOW, "O_NOFOLLOW"},
                                  {O_NONBLOCK, "O_NONBLOCK"},
                                  {O_CLOEXEC, "O_CLOEXEC"}}) {
    if ((flags & bit) == bit) {
      text += std::string("|") + name;
    }
  }
  return text;
}

// Of a call that should have none.
std::string flags_text(int flags) { return flags == 0 ? "" : " flags=" + std::to_string(flags); }

std::string name_of_open_file(int descriptor) {
  std::error_code unknown;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), unknown).filename().string();
}

std::string signal_name(int signal_number) {
  const char *name = sigabbrev_np(signal_number);
  return name != nullptr ? std::string("SIG") + name : std::to_string(signal_number);
}

std::string seconds_text(const timeval &time) {
  return std::to_string(time.tv_sec) + "s" + std::to_string(time.tv_usec) + "us";
}

} // namespace

} // namespace scripted

using namespace scripted;

extern "C" {

int __wrap_socket(int domain, int type, int protocol) {
  if (!IsActive) {
    return __real_socket(domain, type, protocol);
  }
  return request(socket_text(domain, type, protocol)) ? -1 : Kernel.next_socket++;
}

int __wrap_setsockopt(int descriptor, int level, int option, const void *value, socklen_t length) {
  if (!IsActive) {
    return __real_setsockopt(descriptor, level, option, value, length);
  }
  return request(setsockopt_text(descriptor, level, option, value, length)) ? -1 : 0;
}

int __wrap_ioctl(int descriptor, unsigned long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  if (!IsActive) {
    return __real_ioctl(descriptor, number, argument);
  }
  return request(ioctl_text(descriptor, number, argument)) ? -1 : answer_ioctl(number, argument);
}

unsigned int __wrap_if_nametoindex(const char *name) {
  if (!IsActive) {
    return __real_if_nametoindex(name);
  }
  if (request(std::string("if_nametoindex(") + name + ")")) {
    return 0;
  }
  const interface *found = find_interface(name);
  return found != nullptr ? static_cast<unsigned int>(found->index) : 0;
}

ssize_t __wrap_recvmsg(int descriptor, msghdr *header, int flags) {
  if (!IsActive) {
    return __real_recvmsg(descriptor, header, flags);
  }
  const auto *offered = static_cast<const std::uint8_t *>(header->msg_iov->iov_base);
  Kernel.receive_buffer.assign(offered, offered + header->msg_iov->iov_len);
  const std::string parts = header->msg_iovlen == 1 ? "" : " parts=" + std::to_string(header->msg_iovlen);
  const std::string text = "recvmsg(" + descriptor_text(descriptor) + ")" + parts + flags_text(flags);
  return request(text) ? -1 : deliver_message(header);
}

ssize_t __wrap_sendto(int descriptor, const void *bytes, std::size_t length, int flags, const sockaddr *address,
                      socklen_t address_length) {
  if (!IsActive) {
    return __real_sendto(descriptor, bytes, length, flags, address, address_length);
  }
  const bool fails = request(sendto_text(descriptor, length, address, address_length) + flags_text(flags));
  const auto *first = static_cast<const std::uint8_t *>(bytes);
  Kernel.frames.emplace_back(first, first + length);
  return fails ? -1 : static_cast<ssize_t>(length);
}

int __wrap_close(int descriptor) {
  if (!IsActive || (descriptor >= 0 && descriptor < PIPE_READ_END)) {
    return __real_close(descriptor);
  }
  return request("close(" + descriptor_text(descriptor) + ")") ? -1 : 0;
}

int __wrap_open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (!IsActive) {
    return __real_open(path, flags, mode);
  }
  if (request(std::string("open(") + path + ", " + open_flags_text(flags) + ")")) {
    return -1;
  }
  return __real_open(redirected(path).c_str(), flags, mode);
}

int __wrap_unlink(const char *path) {
  if (!IsActive) {
    return __real_unlink(path);
  }
  return request(std::string("unlink(") + path + ")") ? -1 : __real_unlink(redirected(path).c_str());
}

FILE *__wrap_fopen(const char *path, const char *mode) {
  if (!IsActive || path != if_inet6_path) {
    return __real_fopen(path, mode);
  }
  return request(std::string("fopen(") + path + ", " + mode + ")") ? nullptr : open_if_inet6();
}

// Only the kernel's tables are in the transcript: the files that the daemon writes are the tests' own.
int __wrap_fclose(FILE *stream) {
  if (!IsActive) {
    return __real_fclose(stream);
  }
  if (!is_open_table(stream)) {
    Kernel.closed_files.push_back(name_of_open_file(fileno(stream)));
    return __real_fclose(stream);
  }
  request("fclose(" + if_inet6_path + ")");
  return 0;
}

// Not in the transcript: a test that cares lets one fail.
void *__wrap_malloc(std::size_t size) {
  if (!IsActive) {
    return __real_malloc(size);
  }
  if (is_failed("malloc(" + std::to_string(size) + ")")) {
    ++Kernel.allocations_refused;
    return nullptr;
  }
  return __real_malloc(size);
}

int __wrap_system(const char *command) {
  if (!IsActive) {
    return __real_system(command);
  }
  Kernel.commands.emplace_back(command);
  return request(std::string("system(") + command + ")") ? -1 : 0;
}

pid_t __wrap_fork() {
  if (!IsActive) {
    return __real_fork();
  }
  return request("fork()") ? -1 : Kernel.fork_result;
}

pid_t __wrap_setsid() {
  if (!IsActive) {
    return __real_setsid();
  }
  return request("setsid()") ? -1 : 1;
}

void __wrap_exit(int status) {
  if (!IsActive) {
    __real_exit(status);
  }
  request("exit(" + std::to_string(status) + ")");
  Kernel.exit_status = status;
  end_run();
}

sighandler_t __wrap_signal(int signal_number, sighandler_t handler) {
  if (!IsActive) {
    return __real_signal(signal_number, handler);
  }
  if (request("signal(" + signal_name(signal_number) + ")")) {
    return SIG_ERR;
  }
  Kernel.handlers[signal_number] = handler;
  return SIG_DFL;
}

int __wrap_setitimer(int which, const itimerval *value, itimerval *previous) {
  if (!IsActive) {
    return __real_setitimer(which, value, previous);
  }
  const char *name = which == ITIMER_REAL ? "ITIMER_REAL" : "other timer";
  return request(std::string("setitimer(") + name + ") first=" + seconds_text(value->it_value) +
                 " interval=" + seconds_text(value->it_interval))
             ? -1
             : 0;
}

int __wrap_pipe(int *ends) {
  if (!IsActive) {
    return __real_pipe(ends);
  }
  if (request("pipe()")) {
    return -1;
  }
  ends[0] = PIPE_READ_END;
  ends[1] = PIPE_WRITE_END;
  return 0;
}

int __wrap_select(int limit, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
  if (!IsActive) {
    return __real_select(limit, readable, writable, exceptional, timeout);
  }
  Kernel.select_limit = limit;
  const bool waits_plainly = writable == nullptr && exceptional == nullptr && timeout == nullptr;
  // By itself: the answer may end the run with a jump, which would leave the text allocated.
  const bool is_refused =
      request("select(" + watched_text(limit, readable) + ")" + (waits_plainly ? "" : " with more than reading"));
  return is_refused ? -1 : answer_select(readable);
}

ssize_t __wrap_read(int descriptor, void *buffer, std::size_t room) {
  if (!IsActive || descriptor != PIPE_READ_END) {
    return __real_read(descriptor, buffer, room);
  }
  const bool is_refused = request("read(pipe, " + std::to_string(room) + ")");
  return is_refused ? -1 : read_pipe(buffer, room);
}

ssize_t __wrap_write(int descriptor, const void *bytes, std::size_t length) {
  const bool is_real = descriptor >= 0 && descriptor < PIPE_READ_END;
  if (!IsActive || is_real) {
    return __real_write(descriptor, bytes, length);
  }
  const std::string text(static_cast<const char *>(bytes), length);
  if (request("write(" + descriptor_text(descriptor) + ", \"" + text + "\")")) {
    return -1;
  }
  if (descriptor != PIPE_WRITE_END) {
    errno = EBADF;
    return -1;
  }
  return write_pipe(text);
}
}

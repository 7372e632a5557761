// libtarnwick-smooth.so, preloaded into the daemon by tarnwick-run. It takes two waits away and changes no request's
// answer, no frame and no log line:
//
// - Standard output is flushed when the daemon begins to wait, so that the log is current and an event is one write.
// - The packet socket that the daemon opens for each query is a duplicate of one that is kept open. Closing the last
//   reference to a packet socket waits for the kernel's RCU grace period, some 13 ms during which no report is read;
//   closing a duplicate does not.

#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using socket_function = int(int domain, int type, int protocol) noexcept;

constexpr int lowest_kept_descriptor = 64;         // the daemon's own numbers stay as they would be without it
constexpr int most_queued_bytes = 65536;           // a third of the usual send buffer (net.core.wmem_default)
constexpr std::size_t output_buffer_bytes = 16384; // a join among 128 groups; only what is used takes memory

int kept_socket = -1;
char output_buffer[output_buffer_bytes];

int open_socket(int domain, int type, int protocol) {
  static socket_function *const next = reinterpret_cast<socket_function *>(dlsym(RTLD_NEXT, "socket"));
  return next(domain, type, protocol);
}

bool is_for_a_query(int domain, int type, int protocol) {
  return domain == AF_PACKET && type == SOCK_RAW && protocol == IPPROTO_ICMPV6;
}

// Every duplicate shares the send buffer. When a link does not send what it was given, it would fill in the end, and
// the daemon would wait in `sendto`, which never happens to a socket that is new for each query.
bool has_room() {
  int queued = 0;
  return ioctl(kept_socket, SIOCOUTQ, &queued) == 0 && queued < most_queued_bytes;
}

// With protocol 0 the socket receives nothing, so that nothing queues up in it however long it lives. What goes out
// carries the protocol number that `sendto` is given, as before.
bool keep_socket() {
  const int opened = open_socket(AF_PACKET, SOCK_RAW, 0);
  if (opened >= 0) {
    kept_socket = fcntl(opened, F_DUPFD_CLOEXEC, lowest_kept_descriptor);
    close(opened);
  }
  return kept_socket >= 0;
}

__attribute__((constructor)) void enlarge_output_buffer() {
  setvbuf(stdout, output_buffer, _IOFBF, sizeof(output_buffer));
}

} // namespace

// A socket that cannot be kept or duplicated is opened as asked: the daemon gets the kernel's own answer.
extern "C" int socket(int domain, int type, int protocol) noexcept {
  if (is_for_a_query(domain, type, protocol) && (kept_socket >= 0 || keep_socket()) && has_room()) {
    const int duplicate = dup(kept_socket);
    if (duplicate >= 0) {
      return duplicate;
    }
  }
  return open_socket(domain, type, protocol);
}

// By `pselect`, since `select` has another name in the library where times are 64 bits wide on a 32-bit processor.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are reserved ones
extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *longest) {
  fflush(stdout);
  if (longest == nullptr) {
    return pselect(count, readable, writable, exceptional, nullptr, nullptr);
  }
  const timespec precise{longest->tv_sec, longest->tv_usec * 1000};
  return pselect(count, readable, writable, exceptional, &precise, nullptr);
}

#include "mute_kernel.h"

#include "mute_memory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

extern "C" {
void *__real_malloc(std::size_t);
void __real_free(void *);
FILE *__real_fopen(const char *, const char *);
FILE *__real_fdopen(int, const char *);
int __real_open(const char *, int, ...);
int __real_fclose(FILE *);
int __real_close(int);
int __real_ftruncate(int, off_t);
int __real_unlink(const char *);
int __real_fstat(int, struct stat *);
int __real_system(const char *);
}

namespace mute {

kernel Kernel{};

namespace {

constexpr int first_descriptor = 100000; // no descriptor of the test program is that high
constexpr int state_file_descriptor = 90000;

bool IsActive = false; // inside `play`; the fuzzer's own calls go to the system

// Streams that the daemon has open: address tables, which it never closes, and state files, of which a failed dump
// leaves two.
std::array<FILE *, 512> Streams;
std::size_t StreamCount = 0;

FILE *note_stream(FILE *stream) {
  if (stream == nullptr || StreamCount == Streams.size()) {
    fail("no stream, or too many open ones");
  }
  Streams[StreamCount++] = stream;
  return stream;
}

// The fuzzer's own streams are not on record: it saves the input of a crash from within the daemon's code.
void forget_stream(FILE *stream) {
  FILE **const end = Streams.data() + StreamCount;
  FILE **const found = std::find(Streams.data(), end, stream);
  if (found != end) {
    *found = Streams[--StreamCount];
  }
}

// There is nothing to read, and what is written is lost.
FILE *open_nothing(const char *mode) {
  cookie_io_functions_t functions{};
  functions.read = [](void *, char *, std::size_t) -> ssize_t { return 0; };
  return note_stream(fopencookie(nullptr, mode, functions));
}

FILE *open_contents() {
  return Kernel.file.empty() ? open_nothing("r")
                             : note_stream(fmemopen(const_cast<char *>(Kernel.file.data()), Kernel.file.size(), "r"));
}

int index_of(const char *name) { return std::atoi(name + 1); }

bool is_refused() {
  ++Kernel.requests;
  refusal_plan &plan = Kernel.refusals;
  if (plan.length == 0) {
    return false;
  }
  if (plan.grants > 0) {
    --plan.grants;
    return false;
  }
  constexpr unsigned int pattern_bits = 8;
  --plan.length;
  errno = ENOBUFS;
  return (plan.pattern >> (plan.length % pattern_bits) & 1) != 0;
}

void append_control(msghdr *header, int level, int type, const void *data, std::size_t length) {
  cmsghdr control{};
  control.cmsg_len = CMSG_LEN(length);
  control.cmsg_level = level;
  control.cmsg_type = type;
  if (header->msg_controllen < CMSG_SPACE(length)) {
    fail("no room for packet information");
  }
  std::memcpy(header->msg_control, &control, sizeof(control));
  std::memcpy(static_cast<std::uint8_t *>(header->msg_control) + CMSG_LEN(0), data, length);
  header->msg_controllen = CMSG_SPACE(length);
}

// With 192.0.2.3 for number 3.
void list_interfaces(void *request) {
  ifconf list;
  std::memcpy(&list, request, sizeof(list));
  const std::size_t room = static_cast<std::size_t>(list.ifc_len) / sizeof(ifreq);
  const std::size_t listed = std::min(room, Kernel.interfaces.size());
  for (std::size_t i = 0; i < listed; ++i) {
    const char *name = Kernel.interfaces[i].name;
    ifreq entry{};
    std::snprintf(entry.ifr_name, sizeof(entry.ifr_name), "%s", name);
    const std::array<std::uint8_t, 4> address{192, 0, 2, static_cast<std::uint8_t>(index_of(name))};
    std::memcpy(entry.ifr_addr.sa_data + 2, address.data(), address.size());
    std::memcpy(list.ifc_buf + i * sizeof(ifreq), &entry, sizeof(entry));
  }
  list.ifc_len = static_cast<int>(listed * sizeof(ifreq));
  std::memcpy(request, &list, sizeof(list));
}

short flags_of(const char *name) {
  for (const network_interface &one : Kernel.interfaces) {
    if (std::strcmp(one.name, name) == 0) {
      return one.flags;
    }
  }
  return 0;
}

void fill_ipv6(msghdr *header) {
  sockaddr_in6 sender{};
  sender.sin6_family = AF_INET6;
  std::memcpy(&sender.sin6_addr, Kernel.next.sender, sizeof(sender.sin6_addr));
  std::memcpy(header->msg_name, &sender, std::min<std::size_t>(sizeof(sender), header->msg_namelen));
  in6_pktinfo info{};
  info.ipi6_ifindex = static_cast<unsigned int>(Kernel.next.ifindex);
  if (Kernel.next.has_packet_info) {
    append_control(header, IPPROTO_IPV6, IPV6_PKTINFO, &info, sizeof(info));
  }
}

void fill_ipv4(msghdr *header) {
  sockaddr_in sender{};
  sender.sin_family = AF_INET;
  std::memcpy(&sender.sin_addr, Kernel.next.sender, sizeof(sender.sin_addr));
  std::memcpy(header->msg_name, &sender, std::min<std::size_t>(sizeof(sender), header->msg_namelen));
  in_pktinfo info{};
  info.ipi_ifindex = Kernel.next.ifindex;
  std::memcpy(&info.ipi_addr, Kernel.next.destination, sizeof(info.ipi_addr));
  if (Kernel.next.has_packet_info) {
    append_control(header, IPPROTO_IP, IP_PKTINFO, &info, sizeof(info));
  }
}

} // namespace

void silence() {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) {
    fail("no /dev/null");
  }
}

void play(const std::function<void()> &daemon_code) {
  IsActive = true;
  daemon_code();
  IsActive = false;
}

std::size_t release_what_is_lost() {
  while (StreamCount > 0) {
    __real_fclose(Streams[--StreamCount]);
  }
  return give_back_all_blocks();
}

void fail(const std::string &what) {
  std::fprintf(stderr, "FAILED: %s\n", what.c_str());
  std::abort();
}

} // namespace mute

using namespace mute;

extern "C" {

void *__wrap_malloc(std::size_t size) {
  if (!IsActive) {
    return __real_malloc(size);
  }
  return is_refused() ? nullptr : take_block(size);
}

void __wrap_free(void *block) {
  if (!IsActive) {
    __real_free(block);
  } else if (block != nullptr) {
    give_back_block(block);
  }
}

int __wrap_socket(int, int, int) {
  static int next = 0;
  return is_refused() ? -1 : first_descriptor + (++next % 1000);
}

int __wrap_close(int descriptor) { return IsActive ? 0 : __real_close(descriptor); }

// Reads the whole value, as the kernel would.
int __wrap_setsockopt(int, int, int, const void *value, socklen_t length) {
  static volatile std::uint8_t sum;
  for (socklen_t i = 0; i < length; ++i) {
    sum = static_cast<std::uint8_t>(sum ^ static_cast<const std::uint8_t *>(value)[i]);
  }
  return is_refused() ? -1 : 0;
}

ssize_t __wrap_sendto(int, const void *bytes, std::size_t length, int, const sockaddr *, socklen_t) {
  return __wrap_setsockopt(0, 0, 0, bytes, static_cast<socklen_t>(length)) == 0 ? static_cast<ssize_t>(length) : -1;
}

unsigned int __wrap_if_nametoindex(const char *name) {
  return is_refused() ? 0 : static_cast<unsigned int>(index_of(name));
}

int __wrap_ioctl(int, unsigned long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  if (is_refused()) {
    return -1;
  }
  if (number == SIOCGIFCONF) {
    list_interfaces(argument);
    return 0;
  }
  auto *asked = static_cast<ifreq *>(argument);
  if (number == SIOCGIFINDEX) {
    asked->ifr_ifindex = index_of(asked->ifr_name);
  } else if (number == SIOCGIFFLAGS) {
    asked->ifr_flags = flags_of(asked->ifr_name);
  }
  return 0;
}

ssize_t __wrap_recvmsg(int, msghdr *header, int) {
  if (is_refused()) {
    return -1;
  }
  const std::size_t length = std::min(Kernel.next.bytes.size(), header->msg_iov->iov_len);
  std::copy_n(Kernel.next.bytes.begin(), length, static_cast<std::uint8_t *>(header->msg_iov->iov_base));
  if (Kernel.next.destination != nullptr) {
    fill_ipv4(header);
  } else {
    fill_ipv6(header);
  }
  if (!Kernel.next.has_packet_info) {
    header->msg_controllen = 0;
  }
  return static_cast<ssize_t>(length);
}

int __wrap_open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  if (!IsActive) {
    return __real_open(path, flags, mode);
  }
  return is_refused() ? -1 : state_file_descriptor;
}

// State files are written in full, and lost.
int __wrap_fstat(int descriptor, struct stat *status) {
  if (!IsActive) {
    return __real_fstat(descriptor, status);
  }
  std::memset(status, 0, sizeof(*status));
  status->st_mode = S_IFREG;
  status->st_nlink = 1;
  return 0;
}

int __wrap_ftruncate(int descriptor, off_t length) { return IsActive ? 0 : __real_ftruncate(descriptor, length); }

int __wrap_unlink(const char *path) {
  if (!IsActive) {
    return __real_unlink(path);
  }
  return is_refused() ? -1 : 0;
}

FILE *__wrap_fdopen(int descriptor, const char *mode) {
  return IsActive ? open_nothing(mode) : __real_fdopen(descriptor, mode);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
  const bool is_daemons = IsActive && mode[0] == 'r'; // the fuzzer writes, from wherever a crash happens
  if (!is_daemons) {
    return __real_fopen(path, mode);
  }
  return is_refused() ? nullptr : open_contents();
}

int __wrap_fclose(FILE *stream) {
  if (IsActive) {
    forget_stream(stream);
  }
  return __real_fclose(stream);
}

int __wrap_system(const char *command) {
  if (!IsActive) {
    return __real_system(command);
  }
  ++Kernel.commands;
  return is_refused() ? -1 : 0;
}
}

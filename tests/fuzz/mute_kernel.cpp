#include "mute_kernel.h"

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
int __real_close(int);
int __real_fstat(int, struct stat *);
int __real_system(const char *);
}

namespace mute {

kernel Kernel{};

namespace {

constexpr int first_descriptor = 100000; // no descriptor of the test program is that high
constexpr int state_file_descriptor = 90000;

bool IsActive = false; // inside `play`; the fuzzer's own calls go to the system

// Address tables, which the daemon leaves open: one for each interface of each start.
constexpr char left_open_path[] = "/proc/net/if_inet6";
std::array<FILE *, 64> Tables;
std::size_t TableCount = 0;

FILE *open_contents(const char *path) {
  FILE *contents = Kernel.file.empty() ? __real_fopen("/dev/null", "r")
                                       : fmemopen(const_cast<char *>(Kernel.file.data()), Kernel.file.size(), "r");
  if (std::strcmp(path, left_open_path) == 0) {
    if (TableCount == Tables.size()) {
      fail("too many open tables");
    }
    Tables[TableCount++] = contents;
  }
  return contents;
}

// Blocks of the daemon, in a table with open addressing: it never holds more than its pools and a few frames.
constexpr std::size_t block_slots = 8192;
struct block {
  void *address;
  std::size_t size;
};
std::array<block, block_slots> Blocks;
bool HasUsedBlocks = false; // since the table was cleared; parsers allocate nothing, and clearing takes time

block *slot_of(const void *address) {
  std::size_t slot = (reinterpret_cast<std::uintptr_t>(address) >> 4) % block_slots;
  for (std::size_t tried = 0; tried < block_slots; ++tried, slot = (slot + 1) % block_slots) {
    if (Blocks[slot].address == address) {
      return &Blocks[slot];
    }
  }
  return nullptr;
}

// A freed slot keeps a mark, so that searches walk over it.
char FreedMark;

void remember(void *address, std::size_t size) {
  std::size_t slot = (reinterpret_cast<std::uintptr_t>(address) >> 4) % block_slots;
  while (Blocks[slot].address != nullptr && Blocks[slot].address != &FreedMark) {
    slot = (slot + 1) % block_slots;
  }
  Blocks[slot] = {address, size};
  HasUsedBlocks = true;
  ++Kernel.blocks_in_use;
  Kernel.bytes_in_use += size;
}

void forget(void *address) {
  block *found = slot_of(address);
  if (found == nullptr) {
    fail("the daemon freed a block that it did not have");
  }
  --Kernel.blocks_in_use;
  Kernel.bytes_in_use -= found->size;
  *found = {&FreedMark, 0};
}

bool is_refused() {
  ++Kernel.requests;
  if (Kernel.refusals == 0) {
    return false;
  }
  --Kernel.refusals;
  errno = ENOBUFS;
  return true;
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

// As many interfaces as `Kernel.ipv4_interfaces` says: "x2" with 192.0.2.2, "x3" with 192.0.2.3, ...
void list_interfaces(void *request) {
  ifconf list;
  std::memcpy(&list, request, sizeof(list));
  const int room = list.ifc_len / static_cast<int>(sizeof(ifreq));
  const int listed = std::min(room, Kernel.ipv4_interfaces);
  for (int i = 0; i < listed; ++i) {
    constexpr std::uint8_t first_number = 2;
    const auto number = static_cast<std::uint8_t>(first_number + i);
    ifreq entry{};
    std::snprintf(entry.ifr_name, sizeof(entry.ifr_name), "x%d", number);
    const std::array<std::uint8_t, 4> address{192, 0, 2, number};
    std::memcpy(entry.ifr_addr.sa_data + 2, address.data(), address.size());
    std::memcpy(list.ifc_buf + static_cast<std::size_t>(i) * sizeof(ifreq), &entry, sizeof(entry));
  }
  list.ifc_len = listed * static_cast<int>(sizeof(ifreq));
  std::memcpy(request, &list, sizeof(list));
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

std::size_t release_lost_blocks() {
  for (std::size_t i = 0; i < TableCount; ++i) {
    std::fclose(Tables[i]);
  }
  TableCount = 0;
  const std::size_t lost = Kernel.blocks_in_use;
  if (!HasUsedBlocks) {
    return lost;
  }
  HasUsedBlocks = false;
  for (block &one : Blocks) {
    if (one.address != nullptr && one.address != &FreedMark) {
      __real_free(one.address);
    }
    one = block{};
  }
  Kernel.blocks_in_use = 0;
  Kernel.bytes_in_use = 0;
  return lost;
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
  if (is_refused()) {
    return nullptr;
  }
  void *made = __real_malloc(size);
  remember(made, size);
  return made;
}

void __wrap_free(void *address) {
  if (IsActive && address != nullptr) {
    forget(address);
  }
  __real_free(address);
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
  __wrap_setsockopt(0, 0, 0, bytes, static_cast<socklen_t>(length));
  return static_cast<ssize_t>(length);
}

// Interfaces are named after their index: "x3" is number 3.
unsigned int __wrap_if_nametoindex(const char *name) { return static_cast<unsigned int>(std::atoi(name + 1)); }

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
    asked->ifr_ifindex = static_cast<int>(__wrap_if_nametoindex(asked->ifr_name));
  } else if (number == SIOCGIFFLAGS) {
    asked->ifr_flags = IFF_UP | IFF_MULTICAST;
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

// State files lead to nowhere but are written in full.
int __wrap_fstat(int descriptor, struct stat *status) {
  if (!IsActive) {
    return __real_fstat(descriptor, status);
  }
  std::memset(status, 0, sizeof(*status));
  status->st_mode = S_IFREG;
  return 0;
}

FILE *__wrap_fdopen(int descriptor, const char *mode) {
  return IsActive ? __real_fopen("/dev/null", "w") : __real_fdopen(descriptor, mode);
}

FILE *__wrap_fopen(const char *path, const char *mode) {
  if (!IsActive) {
    return __real_fopen(path, mode);
  }
  return is_refused() ? nullptr : open_contents(path);
}

int __wrap_system(const char *command) {
  if (!IsActive) {
    return __real_system(command);
  }
  ++Kernel.commands;
  return is_refused() ? -1 : 0;
}
}

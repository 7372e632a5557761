#include "run/routing_rivals.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <netinet/in.h>
#include <span>
#include <unistd.h>

namespace {

constexpr std::size_t most_sockets = 32;

struct socket_list {
  std::array<std::uint64_t, most_sockets> inodes;
  std::size_t count;
};

using proc_path = std::array<char, 64>;

void list_icmpv6_sockets(socket_list &sockets) {
  sockets = {};
  FILE *table = std::fopen("/proc/net/raw6", "re");
  if (table == nullptr) {
    return;
  }
  std::array<char, 256> line;
  while (sockets.count < most_sockets && std::fgets(line.data(), static_cast<int>(line.size()), table) != nullptr) {
    const std::uint64_t inode = icmpv6_socket_of(line.data());
    if (inode != 0) {
      sockets.inodes[sockets.count++] = inode;
    }
  }
  std::fclose(table);
}

bool is_one_of(const socket_list &sockets, const char *descriptor_path) {
  std::array<char, 64> target{};
  std::uint64_t inode = 0;
  if (readlink(descriptor_path, target.data(), target.size() - 1) < 0 ||
      std::sscanf(target.data(), "socket:[%" SCNu64 "]", &inode) != 1) {
    return false;
  }
  for (const std::uint64_t listed : std::span{sockets.inodes}.first(sockets.count)) {
    if (listed == inode) {
      return true;
    }
  }
  return false;
}

bool holds_one_of(const socket_list &sockets, int pid) {
  proc_path path;
  std::snprintf(path.data(), path.size(), "/proc/%d/fd", pid);
  DIR *descriptors = opendir(path.data());
  if (descriptors == nullptr) {
    return false;
  }
  bool is_found = false;
  for (const dirent *entry = readdir(descriptors); entry != nullptr && !is_found; entry = readdir(descriptors)) {
    std::snprintf(path.data(), path.size(), "/proc/%d/fd/%d", pid, std::atoi(entry->d_name));
    is_found = is_one_of(sockets, path.data());
  }
  closedir(descriptors);
  return is_found;
}

void append_process(int pid, rivals_text &rivals) {
  proc_path path;
  std::array<char, 16> name{}; // TASK_COMM_LEN of the kernel
  std::snprintf(path.data(), path.size(), "/proc/%d/comm", pid);
  FILE *file = std::fopen(path.data(), "re");
  if (file != nullptr) {
    if (std::fgets(name.data(), static_cast<int>(name.size()), file) != nullptr) {
      name[std::strcspn(name.data(), "\n")] = '\0';
    }
    std::fclose(file);
  }
  const std::size_t length = std::strlen(rivals.data());
  std::snprintf(&rivals[length], rivals.size() - length, "%s%s (%d)", length > 0 ? ", " : "", name.data(), pid);
}

} // namespace

// "   0: 00...00:003A 00...00:0000 07 ... inode ref pointer drops"; the port is the protocol number.
std::uint64_t icmpv6_socket_of(const char *line) {
  unsigned protocol = 0;
  std::uint64_t inode = 0;
  constexpr int items = 2;
  const int read = std::sscanf(line, " %*d: %*32[0-9A-F]:%4x %*s %*s %*s %*s %*s %*s %*s %" SCNu64, &protocol, &inode);
  return read == items && protocol == IPPROTO_ICMPV6 ? inode : 0;
}

void find_rivals(pid_t companion, rivals_text &rivals) {
  rivals = {};
  socket_list sockets;
  list_icmpv6_sockets(sockets);
  DIR *processes = sockets.count > 0 ? opendir("/proc") : nullptr;
  if (processes == nullptr) {
    return;
  }
  for (const dirent *entry = readdir(processes); entry != nullptr; entry = readdir(processes)) {
    const int pid = std::atoi(entry->d_name);
    if (pid > 0 && pid != companion && holds_one_of(sockets, pid)) {
      append_process(pid, rivals);
    }
  }
  closedir(processes);
}

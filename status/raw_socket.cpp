#include "status/raw_socket.h"

#include "status/lines.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/stat.h>

namespace {

using fd_path = std::array<char, 64>;

// stat() of a descriptor that is a socket gives the socket's inode.
bool holds_one_of(pid_t pid, const rows_of<std::uint64_t> &inodes) {
  fd_path path;
  std::snprintf(path.data(), path.size(), "/proc/%d/fd", static_cast<int>(pid));
  DIR *folder = opendir(path.data());
  if (folder == nullptr) {
    return false;
  }
  bool is_holder = false;
  for (const dirent *entry = readdir(folder); entry != nullptr && !is_holder; entry = readdir(folder)) {
    struct stat found {};
    if (fstatat(dirfd(folder), entry->d_name, &found, 0) == 0 && S_ISSOCK(found.st_mode)) {
      const std::span<std::uint64_t> all = all_rows(inodes);
      is_holder = std::find(all.begin(), all.end(), static_cast<std::uint64_t>(found.st_ino)) != all.end();
    }
  }
  closedir(folder);
  return is_holder;
}

} // namespace

void parse_raw_icmpv6_sockets(rows_of<std::uint64_t> &inodes, const char *table) {
  line_buffer line;
  while (next_line(line, table)) {
    constexpr int items = 2;
    unsigned protocol = 0;
    std::uint64_t inode = 0;
    // sl local:port remote:port st tx:rx tr:when retransmits uid timeout inode; the port is the protocol's number.
    if (std::sscanf(line.data(), " %*u: %*32[0-9A-F]:%4x %*32[0-9A-F]:%*x %*x %*x:%*x %*x:%*x %*x %*u %*d %" SCNu64,
                    &protocol, &inode) == items &&
        protocol == IPPROTO_ICMPV6) {
      add_row(inodes, inode);
    }
  }
}

void list_socket_holders(rows_of<process_facts> &holders, const rows_of<std::uint64_t> &inodes) {
  DIR *folder = opendir("/proc");
  if (folder == nullptr) {
    return;
  }
  for (const dirent *entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
    const int pid = std::atoi(entry->d_name);
    process_facts facts;
    if (pid > 0 && holds_one_of(pid, inodes) && read_process(facts, pid)) {
      add_row(holders, facts);
    }
  }
  closedir(folder);
}

bool holds_raw_icmpv6_socket(pid_t pid) {
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/net/raw6", static_cast<int>(pid));
  text table;
  rows_of<std::uint64_t> inodes;
  if (read_file(table, path.data())) {
    parse_raw_icmpv6_sockets(inodes, text_of(table));
  }
  const bool is_holder = inodes.count > 0 && holds_one_of(pid, inodes);
  free_rows(table);
  free_rows(inodes);
  return is_holder;
}

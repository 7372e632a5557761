#include "status/daemon_process.h"

#include "status/raw_socket.h"

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using proc_path = std::array<char, 64>;

proc_path path_of(pid_t pid, const char *file) {
  proc_path path;
  std::snprintf(path.data(), path.size(), "/proc/%d/%s", static_cast<int>(pid), file);
  return path;
}

// The link's target is "net:[4026531840]"; the number is the inode that stat() gives.
std::uint64_t namespace_inode(const char *path) {
  struct stat found {};
  return stat(path, &found) == 0 ? static_cast<std::uint64_t>(found.st_ino) : 0;
}

bool read_stat(process_facts &facts, pid_t pid) {
  text content;
  const bool is_read = read_file(content, path_of(pid, "stat").data()) && parse_process_stat(facts, text_of(content));
  free_rows(content);
  return is_read;
}

// Returns whether it could be read.
bool read_status(process_facts &facts, pid_t pid) {
  text content;
  const bool is_read = read_file(content, path_of(pid, "status").data());
  facts.catches_dump_signal = is_read && parse_catches_dump_signal(text_of(content));
  facts.user = is_read ? parse_user(text_of(content)) : NO_USER;
  free_rows(content);
  return is_read;
}

std::uint64_t supervisor_network_of(pid_t parent) {
  process_facts facts{};
  const bool is_supervisor = read_stat(facts, parent) && std::strcmp(facts.name.data(), SUPERVISOR_NAME) == 0 &&
                             read_status(facts, parent) && is_trusted(facts);
  return is_supervisor ? namespace_inode(path_of(parent, "ns/net").data()) : 0;
}

bool is_among(const rows_of<process_facts> &processes, pid_t pid) {
  for (const process_facts &process : all_rows(processes)) {
    if (process.pid == pid) {
      return true;
    }
  }
  return false;
}

// Keeps the rows for which the condition holds.
template <typename condition> void keep_only(rows_of<process_facts> &rows, condition is_kept) {
  std::size_t kept = 0;
  for (const process_facts &row : all_rows(rows)) {
    if (is_kept(row)) {
      rows.first[kept++] = row;
    }
  }
  rows.count = kept;
}

// The same, unless it holds for none.
template <typename condition> void prefer(rows_of<process_facts> &rows, condition is_preferred) {
  const std::span<process_facts> all = all_rows(rows);
  if (std::any_of(all.begin(), all.end(), is_preferred)) {
    keep_only(rows, is_preferred);
  }
}

raw_socket_use raw_socket_use_of(pid_t pid) {
  if (access(path_of(pid, "fd").data(), R_OK | X_OK) != 0) {
    return raw_socket_use::hidden;
  }
  return holds_raw_icmpv6_socket(pid) ? raw_socket_use::held : raw_socket_use::none;
}

} // namespace

// "PID (name) state parent ..."; the name may hold blanks and brackets, so its end is the last bracket.
bool parse_process_stat(process_facts &facts, const char *stat) {
  const char *open = std::strchr(stat, '(');
  const char *close = std::strrchr(stat, ')');
  if (open == nullptr || close == nullptr || close < open) {
    return false;
  }
  const std::size_t length = static_cast<std::size_t>(close - open - 1);
  if (length >= facts.name.size()) {
    return false;
  }
  std::memcpy(facts.name.data(), open + 1, length);
  facts.name[length] = '\0';
  int parent = 0;
  constexpr int items = 2;
  if (std::sscanf(close + 1, " %*c %d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %" SCNu64,
                  &parent, &facts.start_ticks) != items) {
    return false;
  }
  facts.parent = parent;
  return true;
}

bool parse_catches_dump_signal(const char *status) {
  constexpr char key[] = "\nSigCgt:";
  const char *line = std::strstr(status, key);
  std::uint64_t caught = 0;
  return line != nullptr && std::sscanf(line + sizeof(key) - 1, "%" SCNx64, &caught) == 1 &&
         (caught >> (SIGUSR1 - 1) & 1) != 0;
}

// "Uid:" with the four numbers, real, effective, saved and of the file system.
uid_t parse_user(const char *status) {
  constexpr char key[] = "\nUid:";
  constexpr int items = 4;
  const char *line = std::strstr(status, key);
  uid_t real = 0;
  uid_t effective = 0;
  uid_t saved = 0;
  uid_t of_files = 0;
  if (line == nullptr ||
      std::sscanf(line + sizeof(key) - 1, "%u %u %u %u", &real, &effective, &saved, &of_files) != items) {
    return NO_USER;
  }
  return real == effective && real == saved && real == of_files ? real : NO_USER;
}

bool is_trusted(const process_facts &process) {
  return process.user != NO_USER && (process.user == 0 || process.user == geteuid());
}

bool may_be_asked(const process_facts &process) {
  return is_trusted(process) && (process.raw_socket != raw_socket_use::none || process.supervisor_network != 0);
}

bool read_process(process_facts &facts, pid_t pid) {
  facts = process_facts{};
  facts.pid = pid;
  if (!read_stat(facts, pid)) {
    return false;
  }
  const bool is_read = read_status(facts, pid);
  facts.network = namespace_inode(path_of(pid, "ns/net").data());
  facts.supervisor_network = supervisor_network_of(facts.parent);
  facts.raw_socket = std::strcmp(facts.name.data(), DAEMON_NAME) == 0 ? raw_socket_use_of(pid) : raw_socket_use::hidden;
  return is_read;
}

void list_processes(rows_of<process_facts> &processes, const char *name) {
  clear_rows(processes);
  DIR *folder = opendir("/proc");
  if (folder == nullptr) {
    return;
  }
  for (const dirent *entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
    const int pid = std::atoi(entry->d_name);
    process_facts facts;
    if (pid > 0 && read_stat(facts = process_facts{}, pid) && std::strcmp(facts.name.data(), name) == 0 &&
        read_process(facts, pid)) {
      add_row(processes, facts);
    }
  }
  closedir(folder);
}

daemon_search choose_daemon(process_facts &chosen, rows_of<process_facts> &daemons, std::uint64_t own_network) {
  keep_only(daemons, is_trusted);
  rows_of<process_facts> all;
  for (const process_facts &process : all_rows(daemons)) {
    add_row(all, process);
  }
  prefer(daemons, [&](const process_facts &process) { return !is_among(all, process.parent); });
  free_rows(all);
  prefer(daemons, may_be_asked);
  if (daemons.count > 1) {
    prefer(daemons, [&](const process_facts &process) { return process.network == own_network; });
  }
  if (daemons.count > 1) {
    prefer(daemons, [&](const process_facts &process) { return process.supervisor_network == own_network; });
  }
  if (daemons.count != 1) {
    return daemons.count == 0 ? daemon_search::none : daemon_search::several;
  }
  chosen = daemons.first[0];
  return chosen.catches_dump_signal && may_be_asked(chosen) ? daemon_search::found : daemon_search::not_ready;
}

std::uint64_t own_network_namespace() { return namespace_inode("/proc/self/ns/net"); }

long seconds_running(const process_facts &facts) {
  const long ticks_per_second = sysconf(_SC_CLK_TCK);
  timespec now{};
  if (ticks_per_second <= 0 || clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
    return -1;
  }
  const auto started = static_cast<std::int64_t>(facts.start_ticks / static_cast<std::uint64_t>(ticks_per_second));
  return now.tv_sec > started ? static_cast<long>(now.tv_sec - started) : 0;
}

#include "status/supervisor_state.h"

#include "status/lines.h"

#include <cstdio>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::string_view lock_ending = "/lock";
constexpr char state_ending[] = "/state"; // SERVICE_STATE_NAME of run/service_state.h
constexpr std::size_t largest_file_bytes = 4096;

// The path of the file beside the lock, through the process's own root; "" if the process holds no lock.
void find_state_file(text &path, pid_t supervisor) {
  clear_rows(path);
  text folder_path;
  add_text(folder_path, "/proc/%d/fd", static_cast<int>(supervisor));
  DIR *folder = opendir(text_of(folder_path));
  free_rows(folder_path);
  if (folder == nullptr) {
    return;
  }
  for (const dirent *entry = readdir(folder); entry != nullptr && path.count == 0; entry = readdir(folder)) {
    std::array<char, 512> target;
    const ssize_t length = readlinkat(dirfd(folder), entry->d_name, target.data(), target.size());
    const std::string_view opened{target.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
    if (opened.starts_with('/') && opened.ends_with(lock_ending)) {
      const std::size_t kept = opened.size() - lock_ending.size();
      add_text(path, "/proc/%d/root%.*s%s", static_cast<int>(supervisor), static_cast<int>(kept), opened.data(),
               state_ending);
    }
  }
  closedir(folder);
}

bool is_own_file(int file, uid_t user) {
  struct stat status {};
  return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == user;
}

bool read_own_file(text &content, const char *path, uid_t user) {
  const int file = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) {
    return false;
  }
  const bool is_read = is_own_file(file, user) && read_open_file(content, file, largest_file_bytes);
  close(file);
  return is_read;
}

} // namespace

void parse_supervisor_state(supervisor_state &state, const char *file, long now_seconds) {
  clear_rows(state.doing);
  clear_rows(state.failure);
  state.is_host_pool_full = false;
  line_buffer line;
  while (next_line(line, file)) {
    long seconds = 0;
    int times = 0;
    int read = 0;
    state.is_host_pool_full = state.is_host_pool_full || std::strcmp(line.data(), "hosts-full") == 0;
    if (std::sscanf(line.data(), "state %ld %n", &seconds, &read) == 1 && read > 0) {
      clear_rows(state.doing);
      add_text(state.doing, "%s", line.data() + read);
    } else if (std::sscanf(line.data(), "failed %ld %d %n", &seconds, &times, &read) == 2 && read > 0) {
      clear_rows(state.failure);
      add_text(state.failure, "%s", line.data() + read);
      state.failed_seconds_ago = now_seconds > seconds ? now_seconds - seconds : 0;
      state.failures = times;
    }
  }
}

void read_supervisor_state(supervisor_state &state, const process_facts &supervisor) {
  text path;
  text content;
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  find_state_file(path, supervisor.pid);
  const bool is_read = path.count > 0 && read_own_file(content, text_of(path), supervisor.user);
  parse_supervisor_state(state, is_read ? text_of(content) : "", static_cast<long>(now.tv_sec));
  free_rows(path);
  free_rows(content);
}

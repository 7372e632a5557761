#include "run/log_file.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t file_mode = 0640; // addresses of hosts are nobody else's business

struct log_file {
  int descriptor;
  const char *path;
  std::uint64_t most_bytes;
  std::uint64_t bytes;
};

log_file File{-1, nullptr, 0, 0};

// Neither follows a link nor waits for the reader of a pipe that somebody may have planted.
bool open_at_path() {
  const int opened = open(File.path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, file_mode);
  if (opened < 0) {
    return false;
  }
  struct stat status {};
  if (fstat(opened, &status) == -1 || !S_ISREG(status.st_mode)) {
    close(opened);
    errno = EINVAL;
    return false;
  }
  File.descriptor = opened;
  File.bytes = static_cast<std::uint64_t>(status.st_size);
  return true;
}

bool is_removed_or_renamed() {
  struct stat ours {};
  struct stat named {};
  return fstat(File.descriptor, &ours) == -1 || stat(File.path, &named) == -1 || ours.st_ino != named.st_ino ||
         ours.st_dev != named.st_dev;
}

void open_anew() {
  close_log_file();
  open_at_path();
}

// A file that cannot be renamed is emptied: the bound holds in any case.
void begin_next_file() {
  std::array<char, PATH_MAX> predecessor;
  const int length = std::snprintf(predecessor.data(), predecessor.size(), "%s.1", File.path);
  if (static_cast<std::size_t>(length) < predecessor.size() && rename(File.path, predecessor.data()) == 0) {
    open_anew();
    return;
  }
  if (ftruncate(File.descriptor, 0) == 0) {
    File.bytes = 0;
  }
}

} // namespace

bool open_log_file(const char *path, std::uint64_t most_bytes) {
  File.path = path;
  File.most_bytes = most_bytes;
  return open_at_path();
}

void append_to_log_file(std::string_view lines) {
  if (File.path == nullptr) {
    return;
  }
  if (File.descriptor < 0 || is_removed_or_renamed()) {
    open_anew();
  }
  if (File.descriptor >= 0 && File.bytes > 0 && File.bytes + lines.size() > File.most_bytes) {
    begin_next_file();
  }
  if (File.descriptor < 0 || File.bytes + lines.size() > File.most_bytes) {
    return;
  }
  const ssize_t written = write(File.descriptor, lines.data(), lines.size());
  File.bytes += written > 0 ? static_cast<std::uint64_t>(written) : 0;
}

void close_log_file() {
  if (File.descriptor >= 0) {
    close(File.descriptor);
    File.descriptor = -1;
  }
}

#include "status/trusted_file.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool is_of_the_daemon(const struct stat &status, uid_t user) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == user;
}

bool is_older(const timespec &written, const timespec &since) {
  return written.tv_sec != since.tv_sec ? written.tv_sec < since.tv_sec : written.tv_nsec < since.tv_nsec;
}

bool is_in_sticky_folder(const char *path) {
  std::array<char, 128> folder{};
  const char *slash = std::strrchr(path, '/');
  const auto length = slash != nullptr ? static_cast<std::size_t>(slash - path) : 0;
  if (length == 0 || length >= folder.size()) {
    return false;
  }
  std::memcpy(folder.data(), path, length);
  struct stat status {};
  return stat(folder.data(), &status) == 0 && (status.st_mode & S_ISVTX) != 0;
}

// Returns 0, or why the file is not to be read.
int fault_of(int file, uid_t user, const timespec &since) {
  struct stat status {};
  if (fstat(file, &status) != 0) {
    return errno;
  }
  if (!is_of_the_daemon(status, user)) {
    return EPERM;
  }
  return is_older(status.st_mtim, since) ? ESTALE : 0;
}

} // namespace

file_trust look_at_state_file(const char *path, uid_t user) {
  struct stat status {};
  if (lstat(path, &status) != 0 || is_of_the_daemon(status, user)) {
    return file_trust::good;
  }
  if (S_ISREG(status.st_mode)) {
    return file_trust::replaced;
  }
  const bool is_trusted_maker = status.st_uid == 0 || status.st_uid == user;
  if (is_trusted_maker && S_ISLNK(status.st_mode)) {
    return file_trust::is_a_link;
  }
  const bool is_replaced = !is_trusted_maker && !S_ISDIR(status.st_mode) && is_in_sticky_folder(path);
  return is_replaced ? file_trust::replaced : file_trust::refused;
}

bool read_state_file(text &content, const char *path, uid_t user, const timespec &since) {
  clear_rows(content);
  const int file = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) {
    return false;
  }
  int reason = fault_of(file, user, since);
  if (reason == 0 && !read_open_file(content, file, LARGEST_STATE_FILE_BYTES)) {
    reason = errno;
  }
  close(file);
  errno = reason;
  return reason == 0;
}

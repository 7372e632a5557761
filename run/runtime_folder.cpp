#include "run/runtime_folder.h"

#include "run/report.h"
#include "run/service_state.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char usual_base[] = "/run/tarnwick";
constexpr char lock_name[] = "lock";
constexpr char unfinished_name[] = "unfinished";
constexpr mode_t folder_mode = 0755;
constexpr mode_t file_mode = 0644;

file_path Folder{};
int Lock = -1;
bool IsBaseOurs = false; // neither the service manager's nor the operator's: removed at the end

const char *chosen_base(const run_options &options) {
  const char *from_manager = std::getenv("RUNTIME_DIRECTORY");
  IsBaseOurs = options.runtime_folder == nullptr && from_manager == nullptr;
  if (options.runtime_folder != nullptr) {
    return options.runtime_folder;
  }
  return from_manager != nullptr ? from_manager : usual_base;
}

bool make_folder(const char *path) { return mkdir(path, folder_mode) == 0 || errno == EEXIST; }

// The file may have been removed by its last owner between open() and flock(); then the lock is of no use.
bool is_still(const char *path, int descriptor) {
  struct stat by_name {};
  struct stat by_descriptor {};
  return stat(path, &by_name) == 0 && fstat(descriptor, &by_descriptor) == 0 && by_name.st_ino == by_descriptor.st_ino;
}

bool take_lock(const run_options &options) {
  const file_path path = path_in_runtime_folder(lock_name);
  Lock = open(path.data(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, file_mode);
  if (Lock < 0) {
    say_refused(errno, "cannot make %s", path.data());
    return false;
  }
  const bool is_locked = flock(Lock, LOCK_EX | LOCK_NB) == 0;
  if (is_locked && is_still(path.data(), Lock)) {
    return true;
  }
  if (is_locked || errno == EWOULDBLOCK) {
    say_error("another tarnwick-run serves %s (it holds %s)", options.downstreams[0].data(), path.data());
  } else {
    say_refused(errno, "cannot lock %s", path.data());
    unlink(path.data());
  }
  close(Lock);
  Lock = -1;
  return false;
}

bool write_whole(const char *path, const char *content) {
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, file_mode);
  if (file < 0) {
    return false;
  }
  const std::size_t length = std::strlen(content);
  const bool is_written = write(file, content, length) == static_cast<ssize_t>(length);
  return close(file) == 0 && is_written;
}

} // namespace

bool open_runtime_folder(const run_options &options) {
  const char *base = chosen_base(options);
  std::snprintf(Folder.data(), Folder.size(), "%s/%s", base, options.downstreams[0].data());
  if (!make_folder(base) || !make_folder(Folder.data())) {
    say_refused(errno, "cannot make the folder %s (--runtime-folder names another)", Folder.data());
    return false;
  }
  if (!take_lock(options)) {
    rmdir(Folder.data()); // refused while another supervisor's lock is there
    return false;
  }
  return true;
}

bool can_make_runtime_folder(const run_options &options, file_path &refusing) {
  const char *base = chosen_base(options);
  const char *slash = std::strrchr(base, '/');
  if (access(base, F_OK) == 0) {
    std::snprintf(refusing.data(), refusing.size(), "%s", base);
  } else if (slash == nullptr) {
    refusing = {'.'};
  } else {
    std::snprintf(refusing.data(), refusing.size(), "%.*s", static_cast<int>(std::max<std::ptrdiff_t>(slash - base, 1)),
                  base);
  }
  return access(refusing.data(), W_OK | X_OK) == 0;
}

file_path path_in_runtime_folder(const char *name) {
  file_path path = Folder;
  const std::size_t length = std::strlen(path.data());
  std::snprintf(&path[length], path.size() - length, "/%s", name);
  return path;
}

bool write_runtime_file(const char *name, const char *content) {
  const file_path unfinished = path_in_runtime_folder(unfinished_name);
  const file_path path = path_in_runtime_folder(name);
  if (!write_whole(unfinished.data(), content) || std::rename(unfinished.data(), path.data()) != 0) {
    say_refused(errno, "cannot write %s", path.data());
    return false;
  }
  return true;
}

bool read_runtime_file(const char *name, char *content, std::size_t size) {
  content[0] = '\0';
  const int file = open(path_in_runtime_folder(name).data(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (file < 0) {
    return false;
  }
  const ssize_t length = read(file, content, size - 1);
  content[length > 0 ? length : 0] = '\0';
  close(file);
  return length >= 0;
}

void remove_runtime_file(const char *name) { unlink(path_in_runtime_folder(name).data()); }

void close_runtime_folder() {
  if (Lock < 0) {
    return;
  }
  for (const char *name : {NVRAM_NAME, SAVED_FLAGS_NAME, SERVICE_STATE_NAME, unfinished_name, lock_name}) {
    remove_runtime_file(name);
  }
  rmdir(Folder.data());
  if (IsBaseOurs) {
    rmdir(usual_base); // stays while another supervisor has its folder there
  }
  close(Lock);
  Lock = -1;
}

#include "core/state_file.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t readable_by_all = 0666; // less the umask, as fopen does
// O_NONBLOCK: a FIFO without a reader must not stop the loop.
constexpr int for_writing = O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC;

enum class thing {
  own_file,     // regular, one name, of root's or the daemon's own
  foreign_file, // regular, but another user's, or with a second name somewhere
  trusted_link, // symbolic link that root or the daemon's user made
  trusted_other,
  planted, // link or special file of another user
  nothing
};

bool is_trusted(const struct stat &status) { return status.st_uid == 0 || status.st_uid == geteuid(); }

thing kind_of(int descriptor) {
  struct stat status {};
  if (descriptor < 0 || fstat(descriptor, &status) != 0) {
    return thing::nothing;
  }
  if (S_ISREG(status.st_mode)) {
    return status.st_nlink == 1 && is_trusted(status) ? thing::own_file : thing::foreign_file;
  }
  if (!is_trusted(status)) {
    return thing::planted;
  }
  return S_ISLNK(status.st_mode) ? thing::trusted_link : thing::trusted_other;
}

void close_if_open(int descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
  }
}

thing kind_at(const char *path) {
  const int found = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
  const thing kind = kind_of(found);
  close_if_open(found);
  return kind;
}

// Whether the file is in a folder like /tmp, where everybody may make files and nobody may remove another's.
bool is_in_sticky_folder(const char *path) {
  std::array<char, 64> folder{};
  const char *slash = std::strrchr(path, '/');
  const auto length = slash != nullptr ? static_cast<std::size_t>(slash - path) : 0;
  if (length == 0 || length >= folder.size()) {
    return false;
  }
  std::memcpy(folder.data(), path, length);
  const int found = open(folder.data(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  struct stat status {};
  const bool is_sticky = found >= 0 && fstat(found, &status) == 0 && (status.st_mode & S_ISVTX) != 0;
  close_if_open(found);
  return is_sticky;
}

// `is_raced`: whether it failed because what is there has changed meanwhile.
int replace(const char *path, bool &is_raced) {
  const int file = unlink(path) == 0 ? open(path, for_writing | O_EXCL | O_NOFOLLOW, readable_by_all) : -1;
  is_raced = file < 0 && (errno == ENOENT || errno == EEXIST);
  return file;
}

// Whether a failed open may be due to what is there, and not to the disk or to the process: a link, a FIFO without
// reader, or another user's file (fs.protected_regular).
bool is_about_the_thing(int reason) { return reason == ELOOP || reason == ENXIO || reason == EACCES; }

// Where the plain way has failed: whatever is there, it is not a file of the daemon's own.
// `reason` is the plain way's errno, 0 if it led to a file.
int open_in_place_of(const char *path, int reason, bool &is_raced) {
  switch (kind_at(path)) {
  case thing::trusted_link:
    return open(path, for_writing, readable_by_all);
  case thing::foreign_file:
    return replace(path, is_raced);
  case thing::planted:
    return is_in_sticky_folder(path) ? replace(path, is_raced) : -1;
  case thing::nothing:
    is_raced = reason != EACCES && errno == ENOENT; // it has gone meanwhile; EACCES may be about the folder
    return -1;
  case thing::own_file:
  case thing::trusted_other:
    return -1;
  }
  return -1;
}

bool is_regular(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

int open_own_file(const char *path, bool &is_raced) {
  const int file = open(path, for_writing | O_NOFOLLOW, readable_by_all);
  const int reason = file < 0 ? errno : 0;
  if (file < 0 ? is_about_the_thing(reason) : kind_of(file) != thing::own_file) {
    close_if_open(file);
    return open_in_place_of(path, reason, is_raced);
  }
  return file;
}

// An empty regular file, or -1.
int open_empty_file(const char *path) {
  constexpr int most_attempts = 8; // against a user who plants again and again
  int file = -1;
  bool is_raced = true;
  for (int attempt = 0; attempt < most_attempts && is_raced; ++attempt) {
    is_raced = false;
    file = open_own_file(path, is_raced);
  }
  if (file >= 0 && (!is_regular(file) || ftruncate(file, 0) != 0)) {
    close(file);
    return -1;
  }
  return file;
}

} // namespace

FILE *open_state_file(const char *path) {
  const int file = open_empty_file(path);
  FILE *stream = file < 0 ? nullptr : fdopen(file, "w");
  if (stream == nullptr) {
    close_if_open(file);
  }
  return stream;
}

#include "core/state_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

FILE *open_state_file(const char *path) {
  constexpr mode_t readable_by_all = 0666; // less the umask, as fopen does
  // O_NONBLOCK: a FIFO without a reader must not stop the loop.
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, readable_by_all);
  if (file < 0) {
    return nullptr;
  }
  struct stat status {};
  FILE *stream = nullptr;
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    stream = fdopen(file, "w");
  }
  if (stream == nullptr) {
    close(file);
  }
  return stream;
}

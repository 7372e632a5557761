#include "platform/nvram_file.h"

#include "core/bulk_memory.h"
#include "platform/nvram.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

// The file as read, cut into NUL-terminated lines; values are handed out as pointers into it.
struct nvram_store {
  std::size_t length;
  bool is_loaded;
  std::array<char, NVRAM_FILE_LIMIT_BYTES + 1> text;
};

IN_BULK_MEMORY nvram_store Store;

const char *nvram_path() {
  const char *chosen = std::getenv(NVRAM_PATH_VARIABLE);
  return chosen != nullptr && chosen[0] != '\0' ? chosen : NVRAM_DEFAULT_PATH;
}

void complain(const char *path) {
  std::fprintf(stderr, "%s: %s; every NVRAM key counts as absent\n", path, std::strerror(errno));
}

// A line that is cut off would hand out half a value.
void drop_last_line() {
  while (Store.length > 0 && Store.text[Store.length - 1] != '\n') {
    --Store.length;
  }
}

// Opening a FIFO would wait for somebody who writes into it.
bool is_fifo(const char *path) {
  struct stat status {};
  return stat(path, &status) == 0 && S_ISFIFO(status.st_mode);
}

// A missing file is normal (every key is absent); any other failure is reported.
void read_file(const char *path) {
  if (is_fifo(path)) {
    errno = ESPIPE;
    complain(path);
    return;
  }
  FILE *file = std::fopen(path, "re");
  if (file == nullptr) {
    if (errno != ENOENT) {
      complain(path);
    }
    return;
  }
  Store.length = std::fread(Store.text.data(), 1, NVRAM_FILE_LIMIT_BYTES, file);
  if (std::ferror(file) != 0) { // a directory opens like a file
    complain(path);
    Store.length = 0;
  } else if (std::fgetc(file) != EOF) {
    std::fprintf(stderr, "%s: larger than %zu bytes, the rest is not read\n", path, NVRAM_FILE_LIMIT_BYTES);
    drop_last_line();
  }
  std::fclose(file);
}

bool is_passed_over(const char *line) { return line[0] == '\0' || line[0] == '#'; }

// Cuts the text into lines and reports those without a key.
void split_lines(const char *path) {
  char *const end = Store.text.data() + Store.length;
  *end = '\0';
  int number = 1;
  for (char *line = Store.text.data(); line < end; ++number) {
    char *newline = static_cast<char *>(std::memchr(line, '\n', static_cast<std::size_t>(end - line)));
    char *const line_end = newline != nullptr ? newline : end;
    *line_end = '\0';
    if (!is_passed_over(line) && std::strchr(line, '=') == nullptr) {
      std::fprintf(stderr, "%s:%d: no '=' in this line, skipped\n", path, number);
    }
    line = line_end + 1;
  }
}

void load() {
  Store.is_loaded = true;
  Store.length = 0;
  const char *path = nvram_path();
  read_file(path);
  split_lines(path);
}

} // namespace

// The last line of a key wins. Values are taken as they are, trailing blanks included.
char *nvram_get(const char *key) {
  if (!Store.is_loaded) {
    load();
  }
  const std::size_t key_length = std::strlen(key);
  char *const end = Store.text.data() + Store.length;
  char *found = nullptr;
  for (char *line = Store.text.data(); line < end; line += std::strlen(line) + 1) {
    if (!is_passed_over(line) && std::strncmp(line, key, key_length) == 0 && line[key_length] == '=') {
      found = line + key_length + 1;
    }
  }
  return found;
}

void nvram_file_forget() { Store.is_loaded = false; }

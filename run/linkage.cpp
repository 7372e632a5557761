#include "run/linkage.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

namespace {

constexpr int most_headers = 64; // a program has a dozen

template <typename record> bool read_at(int file, std::uint64_t offset, record &value) {
  return pread(file, &value, sizeof(value), static_cast<off_t>(offset)) == static_cast<ssize_t>(sizeof(value));
}

// The dynamic linker, which preloads, is the program's interpreter.
bool has_interpreter(int file) {
  ElfW(Ehdr) head{};
  if (!read_at(file, 0, head) || std::memcmp(head.e_ident, ELFMAG, SELFMAG) != 0 || head.e_phnum > most_headers) {
    return false;
  }
  for (unsigned i = 0; i < head.e_phnum; ++i) {
    ElfW(Phdr) part{};
    if (!read_at(file, head.e_phoff + i * sizeof(part), part)) {
      return false;
    }
    if (part.p_type == PT_INTERP) {
      return true;
    }
  }
  return false;
}

} // namespace

bool loads_libraries(const char *program) {
  const int file = open(program, O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return false;
  }
  const bool does = has_interpreter(file);
  close(file);
  return does;
}

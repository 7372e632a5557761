#include "run/link_alias.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static_assert(IFNAMSIZ == 16, "the widths in the formats below");

namespace {

using stat_text = std::array<char, 1024>;

bool read_stat(pid_t pid, stat_text &text) {
  std::array<char, 32> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/stat", static_cast<int>(pid));
  const int file = open(path.data(), O_RDONLY | O_CLOEXEC);
  const ssize_t length = file < 0 ? -1 : read(file, text.data(), text.size() - 1);
  if (file >= 0) {
    close(file);
  }
  text[length > 0 ? static_cast<std::size_t>(length) : 0] = '\0';
  return length > 0;
}

} // namespace

// "PID (name) state parent ..."; the name may hold blanks and brackets, so its end is the last bracket.
bool identify_process(pid_t pid, process_identity &identity) {
  stat_text text;
  if (!read_stat(pid, text)) {
    return false;
  }
  const char *end_of_name = std::strrchr(text.data(), ')');
  identity.pid = pid;
  return end_of_name != nullptr &&
         std::sscanf(end_of_name + 1,
                     " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %" SCNu64,
                     &identity.start_ticks) == 1;
}

alias_text alias_of_inner_link(const interface_name &host_name) {
  alias_text alias;
  std::snprintf(alias.data(), alias.size(), "tarnwick-run: %s", host_name.data());
  return alias;
}

bool read_inner_alias(const char *alias, interface_name &host_name) {
  return std::sscanf(alias, "tarnwick-run: %15s", host_name.data()) == 1;
}

alias_text alias_of_outer_link(const process_identity &maker, const interface_name &host_name) {
  alias_text alias;
  std::snprintf(alias.data(), alias.size(), "tarnwick-run %d since %" PRIu64 ": %s", static_cast<int>(maker.pid),
                maker.start_ticks, host_name.data());
  return alias;
}

bool read_outer_alias(const char *alias, process_identity &maker, interface_name &host_name) {
  constexpr int items = 3;
  int pid = 0;
  const int read =
      std::sscanf(alias, "tarnwick-run %d since %" SCNu64 ": %15s", &pid, &maker.start_ticks, host_name.data());
  maker.pid = pid;
  return read == items;
}

#include "status/state_paths.h"

#include <cstdio>
#include <sys/stat.h>

namespace {

constexpr char usual_folder[] = "/tmp";

bool is_same_folder(const struct stat &left, const struct stat &right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

// Whether the process has mounted another folder over /tmp, or has another root.
bool is_elsewhere(const char *folder_of_process) {
  struct stat own {};
  struct stat its {};
  return stat(folder_of_process, &its) == 0 && (stat(usual_folder, &own) != 0 || !is_same_folder(own, its));
}

void set_file(state_path &path, const state_path &folder, const char *name) {
  std::snprintf(path.data(), path.size(), "%.32s/%s", folder.data(), name); // 32: of /proc/PID/root/tmp
}

} // namespace

void find_state_paths(state_paths &paths, pid_t daemon) {
  std::snprintf(paths.folder.data(), paths.folder.size(), "/proc/%d/root%s", static_cast<int>(daemon), usual_folder);
  if (!is_elsewhere(paths.folder.data())) {
    std::snprintf(paths.folder.data(), paths.folder.size(), "%s", usual_folder);
  }
  set_file(paths.host_in_group, paths.folder, "tarnwick_host_in_group");
  set_file(paths.join_state, paths.folder, "tarnwick_join_state");
  set_file(paths.type_messages, paths.folder, "tarnwick_type_messages");
}

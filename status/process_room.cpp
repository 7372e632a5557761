#include "status/process_room.h"

#include "status/lines.h"

#include <cstdio>
#include <dirent.h>

namespace {

using proc_path = std::array<char, 64>;

proc_path path_of(pid_t pid, const char *file) {
  proc_path path;
  std::snprintf(path.data(), path.size(), "/proc/%d/%s", static_cast<int>(pid), file);
  return path;
}

long count_descriptors(pid_t pid) {
  DIR *folder = opendir(path_of(pid, "fd").data());
  if (folder == nullptr) {
    return -1;
  }
  long count = 0;
  for (const dirent *entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
    count += entry->d_name[0] != '.' ? 1 : 0;
  }
  closedir(folder);
  return count;
}

// Through the process's own root: the file may be one that only it sees.
void read_settings(text &settings, pid_t daemon) {
  constexpr char variable[] = "TARNWICK_NVRAM";
  constexpr char usual_path[] = "/etc/tarnwick/nvram";
  text environment;
  read_file(environment, path_of(daemon, "environ").data());
  const char *chosen = find_variable(environment, variable);
  text path;
  add_text(path, "/proc/%d/root%s", static_cast<int>(daemon),
           chosen != nullptr && chosen[0] != '\0' ? chosen : usual_path);
  read_file(settings, text_of(path));
  free_rows(environment);
  free_rows(path);
}

// Names separated by commas. What is too long for an interface's name is skipped.
void add_names(rows_of<interface_text> &names, const char *list) {
  while (*list != '\0') {
    const std::size_t length = std::strcspn(list, ",");
    interface_text name{};
    if (length > 0 && length < name.size()) {
      std::memcpy(name.data(), list, length);
      add_row(names, name);
    }
    list += length;
    list += *list == ',' ? 1 : 0;
  }
}

} // namespace

long parse_descriptor_limit(const char *limits) {
  constexpr char key[] = "Max open files";
  const char *line = std::strstr(limits, key);
  long limit = -1;
  return line != nullptr && std::sscanf(line + sizeof(key) - 1, "%ld", &limit) == 1 ? limit : -1;
}

const char *find_variable(const text &environment, const char *name) {
  const std::size_t length = std::strlen(name);
  std::size_t offset = 0;
  while (offset < environment.count) {
    const char *entry = environment.first + offset;
    if (std::strncmp(entry, name, length) == 0 && entry[length] == '=') {
      return entry + length + 1;
    }
    offset += std::strlen(entry) + 1;
  }
  return nullptr;
}

bool parse_is_stopped(const char *status) {
  constexpr char key[] = "\nState:\t";
  const char *line = std::strstr(status, key);
  return line != nullptr && line[sizeof(key) - 1] == 'T';
}

void read_process_room(process_room &room, pid_t pid) {
  text content;
  room.is_stopped = read_file(content, path_of(pid, "status").data()) && parse_is_stopped(text_of(content));
  room.descriptors_used = count_descriptors(pid);
  room.descriptors_most =
      read_file(content, path_of(pid, "limits").data()) ? parse_descriptor_limit(text_of(content)) : -1;
  free_rows(content);
}

void parse_setting(text &value, const char *settings, const char *key) {
  const std::size_t length = std::strlen(key);
  line_buffer line;
  clear_rows(value);
  while (next_line(line, settings)) {
    if (std::strncmp(line.data(), key, length) == 0 && line[length] == '=') {
      clear_rows(value);
      add_text(value, "%s", line.data() + length + 1);
    }
  }
}

void read_setting(text &value, pid_t daemon, const char *key) {
  text settings;
  read_settings(settings, daemon);
  parse_setting(value, text_of(settings), key);
  free_rows(settings);
}

// "-u wan0" or "-uwan0".
void parse_served_names(rows_of<interface_text> &names, const text &command_line) {
  clear_rows(names);
  bool is_value = false;
  for (std::size_t offset = 0; offset < command_line.count; offset += std::strlen(command_line.first + offset) + 1) {
    const char *word = command_line.first + offset;
    const bool is_wanted = word[0] == '-' && (word[1] == 'u' || word[1] == 'd');
    if (is_value) {
      add_names(names, word);
    } else if (is_wanted && word[2] != '\0') {
      add_names(names, word + 2);
    }
    is_value = !is_value && is_wanted && word[2] == '\0';
  }
}

void read_served_names(rows_of<interface_text> &names, pid_t daemon) {
  text command_line;
  read_file(command_line, path_of(daemon, "cmdline").data());
  parse_served_names(names, command_line);
  free_rows(command_line);
}

#include "status/state_request.h"

#include "status/clock.h"
#include "status/trusted_file.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char first_file[] = "tarnwick_join_state";
constexpr char last_closed_file[] = "tarnwick_type_messages";

// How far the files are, according to the notifications.
struct file_progress {
  bool is_whole;   // closed after the last change
  bool is_changed; // since this was last cleared
};

void note_event(const inotify_event &event, const char *name, file_progress &progress) {
  const bool is_last = std::strcmp(name, last_closed_file) == 0;
  if (!is_last && std::strcmp(name, first_file) != 0) {
    return;
  }
  if ((event.mask & IN_MODIFY) != 0) {
    progress = {false, true};
  } else if (is_last) {
    progress.is_whole = true;
  }
}

// Takes the notifications that are waiting.
void drain_notifications(int notifications, file_progress &progress) {
  alignas(inotify_event) std::array<char, 4096> buffer;
  for (ssize_t got = read(notifications, buffer.data(), buffer.size()); got > 0;
       got = read(notifications, buffer.data(), buffer.size())) {
    std::size_t offset = 0;
    while (offset + sizeof(inotify_event) <= static_cast<std::size_t>(got)) {
      inotify_event event;
      std::memcpy(&event, buffer.data() + offset, sizeof(event));
      note_event(event, event.len > 0 ? buffer.data() + offset + sizeof(event) : "", progress);
      offset += sizeof(event) + event.len;
    }
  }
}

// Whether asking can do the daemon no harm. A planted thing that it cannot replace costs it descriptors at every dump.
bool may_ask(daemon_state &state, uid_t user) {
  const state_paths &paths = state.paths;
  for (const state_path *path : {&paths.host_in_group, &paths.type_messages, &paths.join_state}) {
    const file_trust trust = look_at_state_file(path->data(), user);
    const bool is_read = path != &paths.host_in_group;
    if (trust == file_trust::refused || (trust == file_trust::is_a_link && is_read)) {
      state.planted_file = path->data();
      state.is_link = trust == file_trust::is_a_link;
      return false;
    }
  }
  return true;
}

state_answer read_state(daemon_state &state, uid_t user, const timespec &asked) {
  clear_rows(state.interfaces);
  clear_rows(state.groups);
  text content;
  const bool has_interfaces = read_state_file(content, state.paths.type_messages.data(), user, asked);
  if (has_interfaces) {
    parse_type_messages(state.interfaces, text_of(content));
  }
  const bool has_groups = has_interfaces && read_state_file(content, state.paths.join_state.data(), user, asked);
  if (has_groups) {
    parse_join_state(state.groups, text_of(content));
  }
  const int reason = errno;
  free_rows(content);
  errno = reason;
  return has_groups ? state_answer::fresh : state_answer::unreadable;
}

// Whether the file may yet come: this one is another's, or of an earlier dump that ended meanwhile.
bool may_be_replaced(int reason) {
  return reason == EPERM || reason == ELOOP || reason == ENXIO || reason == ESTALE || reason == ENOENT;
}

// Reads again when another dump began during the reading.
state_answer wait_and_read(daemon_state &state, int notifications, const process_facts &daemon, const timespec &asked) {
  file_progress progress{false, false};
  int last_reason = 0;
  const std::int64_t deadline = monotonic_milliseconds() + ANSWER_DEADLINE_MILLISECONDS;
  for (std::int64_t left = ANSWER_DEADLINE_MILLISECONDS; left > 0; left = deadline - monotonic_milliseconds()) {
    pollfd waiting{notifications, POLLIN, 0};
    if (!progress.is_whole && poll(&waiting, 1, static_cast<int>(left)) < 0) {
      return state_answer::no_answer; // interrupted: the caller looks whether it is to end
    }
    drain_notifications(notifications, progress);
    if (!progress.is_whole) {
      continue;
    }
    progress = {false, false}; // what comes from here on belongs to another dump
    const state_answer answer = read_state(state, daemon.user, asked);
    const int reason = errno;
    drain_notifications(notifications, progress);
    if (answer == state_answer::unreadable && may_be_replaced(reason)) {
      last_reason = reason;
    } else if (!progress.is_changed) {
      errno = reason;
      return answer;
    }
  }
  errno = last_reason;
  return last_reason != 0 ? state_answer::unreadable : state_answer::no_answer;
}

state_answer signal_and_read(daemon_state &state, const process_facts &daemon, int notifications) {
  if (inotify_add_watch(notifications, state.paths.folder.data(), IN_CLOSE_WRITE | IN_MODIFY) < 0) {
    return state_answer::cannot_watch;
  }
  timespec asked{};
  clock_gettime(CLOCK_REALTIME_COARSE, &asked);
  if (kill(daemon.pid, SIGUSR1) != 0) {
    return state_answer::cannot_signal;
  }
  return wait_and_read(state, notifications, daemon, asked);
}

} // namespace

state_answer ask_for_state(daemon_state &state, const process_facts &daemon) {
  find_state_paths(state.paths, daemon.pid);
  if (!may_ask(state, daemon.user)) {
    return state_answer::planted;
  }
  const int notifications = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (notifications < 0) {
    return state_answer::cannot_watch;
  }
  const state_answer answer = signal_and_read(state, daemon, notifications);
  const int reason = errno;
  close(notifications);
  errno = reason;
  return answer;
}

long seconds_since_written(const char *path, uid_t user) {
  struct stat found {};
  if (lstat(path, &found) != 0 || !S_ISREG(found.st_mode) || found.st_uid != user) {
    return -1;
  }
  const time_t now = std::time(nullptr);
  return now > found.st_mtime ? static_cast<long>(now - found.st_mtime) : 0;
}

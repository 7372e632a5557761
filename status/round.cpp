#include "status/round.h"

#include "status/number_text.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr char usual_place[] = "/tmp/tarnwick_type_messages"; // as the daemon itself calls it

void say_none(text &problem) {
  add_text(problem, "tarnwick does not run here: start it, for example with 'systemctl start tarnwick'");
  const long age = seconds_since_written(usual_place, geteuid());
  if (age >= 0) {
    add_text(problem, "\n(%s is %s old and says nothing about the present)", usual_place, duration_text(age).data());
  }
}

// With the host's names if it runs in a private network.
void add_interface_names(text &problem, pid_t daemon) {
  traffic_sample sample{};
  read_traffic(sample, daemon);
  const char *before = " (";
  for (const mif_row &mif : all_rows(sample.mifs)) {
    add_text(problem, "%s%s", before, mif.host_name[0] != '\0' ? mif.host_name.data() : mif.name.data());
    before = ", ";
  }
  add_text(problem, "%s", sample.mifs.count > 0 ? ")" : "");
  free_rows(sample.mifs);
  free_rows(sample.entries);
}

void say_several(text &problem, const rows_of<process_facts> &daemons) {
  add_text(problem, "several processes are named tarnwick: choose one with --pid, one of");
  for (const process_facts &daemon : all_rows(daemons)) {
    add_text(problem, " %d", static_cast<int>(daemon.pid));
    add_interface_names(problem, daemon.pid);
  }
}

void say_not_ready(text &problem, const process_facts &daemon) {
  add_text(problem, "tarnwick (process %d) cannot be asked: it is still starting, or hangs while it starts",
           static_cast<int>(daemon.pid));
}

bool check_wanted(process_facts &daemon, text &problem, pid_t wanted) {
  if (!read_process(daemon, wanted)) {
    add_text(problem, "there is no process %d", static_cast<int>(wanted));
    return false;
  }
  // SIGUSR1 ends most programs.
  if (std::strcmp(daemon.name.data(), DAEMON_NAME) != 0) {
    add_text(problem, "process %d is '%s', not tarnwick", static_cast<int>(wanted), daemon.name.data());
    return false;
  }
  if (!is_trusted(daemon)) {
    add_text(problem, "process %d is another user's, and only root's or your own are asked", static_cast<int>(wanted));
    return false;
  }
  if (!daemon.catches_dump_signal || !may_be_asked(daemon)) {
    say_not_ready(problem, daemon);
    return false;
  }
  return true;
}

void say_no_answer(text &problem, const state_paths &paths, const process_facts &daemon) {
  constexpr int milliseconds_per_second = 1000;
  const char *file = paths.type_messages.data();
  const long age = seconds_since_written(file, daemon.user);
  add_text(problem, "tarnwick (process %d) wrote no state within %d s; ", static_cast<int>(daemon.pid),
           ANSWER_DEADLINE_MILLISECONDS / milliseconds_per_second);
  if (age >= 0) {
    add_text(problem, "%s is stale, %s old\n", file, duration_text(age).data());
  } else {
    add_text(problem, "there is no %s\n", file);
  }
  add_text(problem, "Its log says why (\"Create %s failed!\"), or it has a /tmp of its own.", usual_place);
}

void say_planted(text &problem, const daemon_state &state) {
  if (state.is_link) {
    add_text(problem, "%s is a link, which is not followed here: remove it", state.planted_file);
  } else {
    add_text(problem, "tarnwick was not asked, since it cannot write %s: remove what is there", state.planted_file);
  }
}

bool say_answer(text &problem, const daemon_state &state, state_answer answer, int reason,
                const process_facts &daemon) {
  switch (answer) {
  case state_answer::fresh:
    return true;
  case state_answer::cannot_watch:
    add_text(problem, "cannot watch %s for the daemon's answer: %s", state.paths.folder.data(), std::strerror(reason));
    return false;
  case state_answer::cannot_signal:
    if (reason == EPERM) {
      add_text(problem, "not permitted to ask tarnwick (process %d): run tarnwick-status as root or as its user",
               static_cast<int>(daemon.pid));
    } else {
      add_text(problem, "cannot ask tarnwick (process %d): %s", static_cast<int>(daemon.pid), std::strerror(reason));
    }
    return false;
  case state_answer::no_answer:
    say_no_answer(problem, state.paths, daemon);
    return false;
  case state_answer::planted:
    say_planted(problem, state);
    return false;
  case state_answer::unreadable:
    if (reason == EPERM || reason == ELOOP || reason == ESTALE) {
      add_text(problem, "%s or %s is not what tarnwick (process %d) wrote: somebody has put another file there",
               state.paths.type_messages.data(), state.paths.join_state.data(), static_cast<int>(daemon.pid));
      return false;
    }
    add_text(problem, "cannot read %s and %s: %s", state.paths.type_messages.data(), state.paths.join_state.data(),
             std::strerror(reason));
    return false;
  }
  return false;
}

bool read_into(traffic_sample &sample, text &problem, pid_t daemon) {
  if (read_traffic(sample, daemon)) {
    return true;
  }
  add_text(problem, "cannot read the kernel's tables /proc/%d/net/ip6_mr_vif and ip6_mr_cache: %s",
           static_cast<int>(daemon), std::strerror(errno));
  return false;
}

bool confirm_state(daemon_state &state, text &problem, pid_t daemon) {
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/net/dev", static_cast<int>(daemon));
  text table;
  const bool is_read = read_file(table, path.data());
  if (is_read) {
    confirm_interfaces(state.interfaces, state.groups, text_of(table));
  } else {
    add_text(problem, "cannot read %s: %s", path.data(), std::strerror(errno));
  }
  free_rows(table);
  return is_read;
}

} // namespace

bool find_daemon(status_round &round, text &problem, pid_t wanted) {
  if (wanted > 0) {
    return check_wanted(round.daemon, problem, wanted);
  }
  list_processes(round.daemons, DAEMON_NAME);
  switch (choose_daemon(round.daemon, round.daemons, own_network_namespace())) {
  case daemon_search::found:
    return true;
  case daemon_search::none:
    say_none(problem);
    return false;
  case daemon_search::several:
    say_several(problem, round.daemons);
    return false;
  case daemon_search::not_ready:
    say_not_ready(problem, round.daemon);
    return false;
  }
  return false;
}

bool take_sample(status_round &round, text &problem) {
  round.sampled_daemon = round.daemon.pid;
  return read_into(round.samples[round.newest], problem, round.daemon.pid);
}

bool take_snapshot(status_round &round, text &problem) {
  round.answer = ask_for_state(round.state, round.daemon);
  if (!say_answer(problem, round.state, round.answer, errno, round.daemon)) {
    return false;
  }
  if (!confirm_state(round.state, problem, round.daemon.pid)) {
    return false;
  }
  const std::size_t older = round.newest;
  round.newest = 1 - older;
  if (!read_into(round.samples[round.newest], problem, round.daemon.pid)) {
    return false;
  }
  const bool is_comparable = round.sampled_daemon == round.daemon.pid;
  round.sampled_daemon = round.daemon.pid;
  join_snapshot(round.joined, round.daemon, round.state, round.samples[is_comparable ? older : round.newest],
                round.samples[round.newest]);
  find_companion(round.joined);
  return true;
}

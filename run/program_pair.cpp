#include "run/program_pair.h"

#include "run/child_process.h"
#include "run/report.h"
#include "run/routing_rivals.h"
#include "run/routing_state.h"

#include <algorithm>
#include <csignal>
#include <linux/capability.h>
#include <sys/wait.h>
#include <unistd.h>

program_pair ProgramPair{};

namespace {

constexpr std::int64_t companion_end_ms = 1000;
constexpr std::int64_t daemon_end_ms = 2000; // together less than the 5 s that procd gives

bool is_running(const supervised_program &program) { return program.pid != 0; }

bool is_asked_to_end(const supervised_program &program) { return program.kill_at_ms != NEVER_MS; }

// Starts a program that writes to a new pipe. The end of the pipe that it writes to stays with it alone.
bool start_with_log(supervised_program &program, log_reader &log, log_origin origin,
                    pid_t (*start_it)(const program_start &), program_start &start, std::int64_t now_ms) {
  int write_end = -1;
  close_log_reader(log);
  if (!open_log_reader(log, origin, write_end)) {
    return false;
  }
  start.standard_output = write_end;
  start.standard_error = write_end;
  const pid_t pid = start_it(start);
  close(write_end);
  program = {std::max(pid, 0), now_ms, NEVER_MS};
  return pid > 0;
}

bool start_companion_now(program_start &start, std::int64_t now_ms) {
  return start_with_log(ProgramPair.companion, ProgramPair.companion_log, log_origin::companion, start_companion, start,
                        now_ms);
}

// Sends the signal that is due, at first `signal_number`. Returns whether it has ended.
bool end_program(supervised_program &program, int signal_number, std::int64_t patience_ms, std::int64_t now_ms,
                 std::int64_t &next_ms) {
  if (!is_running(program)) {
    return true;
  }
  if (!is_asked_to_end(program) || now_ms >= program.kill_at_ms) {
    kill(program.pid, is_asked_to_end(program) ? SIGKILL : signal_number);
    program.kill_at_ms = now_ms + patience_ms;
  }
  next_ms = std::min(next_ms, program.kill_at_ms);
  return false;
}

void explain(const end_facts &start_facts, int wait_status, end_text &reason) {
  rivals_text rivals;
  find_rivals(ProgramPair.companion.pid, rivals);
  end_facts facts = start_facts;
  facts.wait_status = wait_status;
  facts.has_rights = has_capability(CAP_NET_ADMIN) && has_capability(CAP_NET_RAW);
  facts.can_route_multicast = can_route_multicast();
  facts.rivals = rivals.data();
  explain_end(facts, reason);
}

void note_end_of_companion(int wait_status, std::int64_t now_ms) {
  supervised_program &companion = ProgramPair.companion;
  close_log_reader(ProgramPair.companion_log);
  if (!is_asked_to_end(companion)) {
    const int wait_s = pace_after_end(ProgramPair.companion_pace, companion.started_ms, now_ms);
    say_error("tarnwick-assist ended (%s %d); it is started again in %d s",
              WIFSIGNALED(wait_status) ? "signal" : "status",
              WIFSIGNALED(wait_status) ? WTERMSIG(wait_status) : WEXITSTATUS(wait_status), wait_s);
  }
  companion = {0, 0, NEVER_MS};
}

} // namespace

void clear_program_pair() {
  ProgramPair = {};
  ProgramPair.daemon_log.descriptor = -1;
  ProgramPair.companion_log.descriptor = -1;
  ProgramPair.daemon.kill_at_ms = NEVER_MS;
  ProgramPair.companion.kill_at_ms = NEVER_MS;
}

bool start_pair(program_start &start, std::int64_t now_ms) {
  clear_daemon_error();
  ProgramPair.is_daemon_killed = false;
  ProgramPair.companion_pace = {};
  return start_with_log(ProgramPair.daemon, ProgramPair.daemon_log, log_origin::daemon, start_daemon, start, now_ms) &&
         (!start.options->has_companion || start_companion_now(start, now_ms));
}

void keep_companion(program_start &start, std::int64_t now_ms, std::int64_t &next_ms) {
  if (!start.options->has_companion || is_running(ProgramPair.companion)) {
    return;
  }
  if (now_ms >= ProgramPair.companion_pace.not_before_ms && !start_companion_now(start, now_ms)) {
    pace_after_end(ProgramPair.companion_pace, now_ms, now_ms);
  }
  if (!is_running(ProgramPair.companion)) {
    next_ms = std::min(next_ms, ProgramPair.companion_pace.not_before_ms);
  }
}

void ask_pair_to_end(bool is_daemon_killed) { ProgramPair.is_daemon_killed = is_daemon_killed; }

bool is_pair_ended(std::int64_t now_ms, std::int64_t &next_ms) {
  if (!end_program(ProgramPair.companion, SIGTERM, companion_end_ms, now_ms, next_ms) ||
      !end_program(ProgramPair.daemon, ProgramPair.is_daemon_killed ? SIGKILL : SIGTERM, daemon_end_ms, now_ms,
                   next_ms)) {
    return false;
  }
  close_log_reader(ProgramPair.companion_log);
  close_log_reader(ProgramPair.daemon_log);
  return true;
}

bool note_end_of_program(pid_t pid, int wait_status, const end_facts &start_facts, std::int64_t now_ms,
                         end_text &reason) {
  if (pid == ProgramPair.companion.pid) {
    note_end_of_companion(wait_status, now_ms);
    return false;
  }
  if (pid != ProgramPair.daemon.pid) {
    return false;
  }
  close_log_reader(ProgramPair.daemon_log);
  const bool has_ended_by_itself = !is_asked_to_end(ProgramPair.daemon);
  if (has_ended_by_itself) {
    explain(start_facts, wait_status, reason);
  }
  ProgramPair.daemon.pid = 0;
  return has_ended_by_itself;
}

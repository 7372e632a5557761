#include "status/check_programs.h"

#include "status/cure.h"
#include "status/number_text.h"

namespace {

constexpr char place[] = "programs";

void add_running(check_list &list, const process_facts &process) {
  const long running = seconds_running(process);
  add_check(list, check_result::ok, place, "%s runs (process %d, up %s)", process.name.data(),
            static_cast<int>(process.pid), running >= 0 ? duration_text(running).data() : "?");
}

// A line for each: "ok" would be wrong where the daemon is stopped and cannot answer.
void check_answer(check_list &list, const check_subject &subject, const process_room &room) {
  const int daemon = static_cast<int>(subject.daemon.pid);
  if (room.is_stopped) {
    add_check(list, check_result::no, place, "tarnwick (process %d) is stopped by a signal", daemon);
    add_cure(list, "kill -CONT %d", daemon);
  } else if (subject.answer == state_answer::no_answer) {
    add_check(list, check_result::no, place, "tarnwick (process %d) does not answer: it hangs, or cannot write to /tmp",
              daemon);
    add_cure(list, "%s", restart_command());
  } else if (!subject.has_state) {
    add_check(list, check_result::unknown, place, "%s", text_of(subject.problem));
  }
}

// Each query opens one.
void check_descriptors(check_list &list, const process_room &room) {
  constexpr long fewest_free = 2; // a query's and a state file's
  if (room.descriptors_used < 0 || room.descriptors_most < 0) {
    add_check(list, check_result::unknown, place, "how many descriptors tarnwick has left");
    return;
  }
  const bool has_enough = room.descriptors_most - room.descriptors_used >= fewest_free;
  add_check(list, has_enough ? check_result::ok : check_result::no, place, "tarnwick has %ld of %ld descriptors open%s",
            room.descriptors_used, room.descriptors_most, has_enough ? "" : ", and cannot send queries");
  if (!has_enough) {
    add_cure(list, "%s", restart_command());
  }
}

// The daemon says that only in its log. Streams flow all the same.
void check_host_pool(check_list &list, const program_facts &facts) {
  if (facts.supervisor.pid != 0 && facts.state.doing.count > 0) {
    add_check(list, check_result::ok, place, "%s",
              facts.state.is_host_pool_full ? "128 of 128 hosts are noted: further ones are not, which stops no stream"
                                            : "there is room to note further hosts (fewer than 128 since the start)");
  }
}

// The daemon's pool is one for all interfaces.
void check_pool(check_list &list, const check_subject &subject) {
  constexpr std::size_t pool_groups = 128; // MLD_GROUP_POOL_SIZE of mld/mld_router.h
  const std::size_t used = subject.snapshot->listeners.count;
  const bool has_room = used < pool_groups;
  add_check(list, has_room ? check_result::ok : check_result::no, place, "%zu of %zu groups are in use%s", used,
            pool_groups, has_room ? "" : ": further ones are dropped");
  if (!has_room) {
    add_cure(list, "tarnwick-status # whose groups are they?");
  }
}

// The daemon's parent; without a daemon, a supervisor that runs in the caller's network namespace.
void find_supervisor(process_facts &supervisor, const process_facts &daemon) {
  supervisor = process_facts{};
  rows_of<process_facts> running;
  list_processes(running, SUPERVISOR_NAME);
  for (const process_facts &process : all_rows(running)) {
    const bool is_its_own = daemon.pid > 0 ? process.pid == daemon.parent : process.network == own_network_namespace();
    if (is_its_own && is_trusted(process)) {
      supervisor = process;
    }
  }
  free_rows(running);
}

void say_no_daemon(check_list &list, const check_subject &subject, const program_facts &facts) {
  if (facts.supervisor.pid == 0 || facts.state.doing.count == 0) {
    add_check(list, check_result::no, place, "%s", text_of(subject.problem));
    add_cure(list, "%s", restart_command());
    return;
  }
  add_running(list, facts.supervisor);
  add_check(list, check_result::no, place, "tarnwick does not run; %s (process %d) says: %s", SUPERVISOR_NAME,
            static_cast<int>(facts.supervisor.pid), text_of(facts.state.doing));
  add_cure(list, "%s", log_command());
}

void add_failure(check_list &list, const supervisor_state &state) {
  if (state.failure.count > 0) {
    add_check(list, check_result::ok, place, "%d starts failed, the last one %s ago: %s", state.failures,
              duration_text(state.failed_seconds_ago).data(), text_of(state.failure));
  }
}

} // namespace

void read_program_facts(program_facts &facts, const process_facts &daemon) {
  facts.companion = process_facts{};
  find_supervisor(facts.supervisor, daemon);
  read_supervisor_state(facts.state, facts.supervisor);
  rows_of<process_facts> companions;
  list_processes(companions, COMPANION_NAME);
  for (const process_facts &companion : all_rows(companions)) {
    if (companion.network == daemon.network) {
      facts.companion = companion;
    }
  }
  free_rows(companions);
}

void check_programs(check_list &list, const check_subject &subject, const program_facts &facts,
                    const process_room &room) {
  if (!subject.has_daemon) {
    say_no_daemon(list, subject, facts);
    return;
  }
  if (facts.supervisor.pid != 0) {
    add_running(list, facts.supervisor);
    add_failure(list, facts.state);
  }
  add_running(list, subject.daemon);
  check_descriptors(list, room);
  check_answer(list, subject, room);
  if (facts.companion.pid == 0) {
    add_check(list, check_result::no, place, "%s does not run beside the daemon", COMPANION_NAME);
    add_cure(list, "%s", restart_command());
  } else {
    add_running(list, facts.companion);
  }
  if (subject.has_state) {
    check_pool(list, subject);
    check_host_pool(list, facts);
  }
}

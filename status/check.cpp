#include "status/check.h"

#include "status/check_entry.h"
#include "status/check_hosts.h"
#include "status/check_interfaces.h"
#include "status/check_kernel.h"
#include "status/check_lan.h"
#include "status/check_output.h"
#include "status/check_programs.h"
#include "status/check_subject.h"
#include "status/check_upstream.h"
#include "status/network_visit.h"

#include <cerrno>
#include <ctime>

namespace {

check_subject Subject;
path_facts Path;
kernel_facts Kernel;
program_facts Programs;

void wait_for_sample() {
  const timespec wait{CHECK_SAMPLE_SECONDS, 0};
  nanosleep(&wait, nullptr);
}

void find_subject(status_round &round, const status_options &options) {
  Subject.group = options.group;
  Subject.source = options.source;
  Subject.answer = state_answer::fresh;
  Subject.has_state = false;
  clear_rows(Subject.problem);
  Subject.has_daemon = find_daemon(round, Subject.problem, options.daemon);
  Subject.daemon = Subject.has_daemon ? round.daemon : process_facts{};
}

// Everything that lies in the daemon's network namespace. Returns false if that may not be entered.
bool read_there(status_round &round) {
  const int home = begin_network_visit(Subject.daemon);
  if (home == VISIT_REFUSED) {
    return false;
  }
  read_kernel_facts(Kernel, Subject.daemon.pid);
  const bool has_sample = Subject.has_daemon && take_sample(round, Subject.problem);
  if (has_sample) {
    begin_path_facts(Path, Subject, round.samples[round.newest]);
    wait_for_sample();
  }
  end_path_facts(Path, Subject);
  end_network_visit(home);
  if (has_sample) {
    Subject.has_state = take_snapshot(round, Subject.problem);
    Subject.answer = round.answer;
    Subject.snapshot = &round.joined;
  }
  return true;
}

} // namespace

void run_check(check_list &list, status_round &round, const status_options &options) {
  clear_checks(list);
  find_subject(round, options);
  if (!read_there(round)) {
    add_check(list, check_result::unknown, "programs", "the daemon's network namespace may not be entered: %s",
              std::strerror(errno));
    return;
  }
  read_program_facts(Programs, Subject.daemon);
  Path.has_heard = read_heard(Path.heard, Programs.companion.pid);
  check_kernel(list, Subject, Kernel);
  check_programs(list, Subject, Programs, Path.room);
  if (!Subject.has_state) {
    return;
  }
  check_interfaces(list, Subject, Path);
  check_lan(list, Subject, Path);
  if (Subject.group[0] != '\0') {
    check_hosts(list, Subject, Path);
  }
  check_upstream(list, Subject, Path);
  check_entry(list, Subject);
  check_output(list, Subject, Path);
}

int check_status(const check_list &list) {
  switch (result_of(list)) {
  case check_result::ok:
    return CHECK_ALL_OK;
  case check_result::no:
    return CHECK_SAYS_NO;
  case check_result::unknown:
    return CHECK_COULD_NOT_LOOK;
  }
  return CHECK_COULD_NOT_LOOK;
}

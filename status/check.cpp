#include "status/check.h"

#include "status/check_kernel.h"
#include "status/check_programs.h"
#include "status/check_subject.h"

#include <ctime>

namespace {

check_subject Subject;

void wait_for_sample() {
  const timespec wait{CHECK_SAMPLE_SECONDS, 0};
  nanosleep(&wait, nullptr);
}

// Fills what several steps look at: the daemon, its state and two samples of the kernel's counters.
void read_subject(status_round &round, const status_options &options) {
  Subject.group = options.group;
  Subject.source = options.source;
  clear_rows(Subject.problem);
  Subject.has_daemon = find_daemon(round, Subject.problem, options.daemon);
  Subject.daemon = Subject.has_daemon ? round.daemon : process_facts{};
  Subject.has_state = false;
  if (Subject.has_daemon && take_sample(round, Subject.problem)) {
    wait_for_sample();
    Subject.has_state = take_snapshot(round, Subject.problem);
    Subject.snapshot = &round.joined;
  }
}

} // namespace

void run_check(check_list &list, status_round &round, const status_options &options) {
  clear_checks(list);
  read_subject(round, options);
  kernel_facts kernel;
  read_kernel_facts(kernel, Subject.daemon.pid);
  check_kernel(list, Subject, kernel);
  program_facts programs;
  read_program_facts(programs, Subject.daemon);
  check_programs(list, Subject, programs);
}

int check_status(const check_list &list) {
  if (verdict_of(list) != nullptr) {
    return CHECK_SAYS_NO;
  }
  for (const check_step &step : all_rows(list.steps)) {
    if (step.result == check_result::unknown) {
      return CHECK_COULD_NOT_LOOK;
    }
  }
  return CHECK_ALL_OK;
}

#include "status/check_programs.h"

#include "status/number_text.h"

namespace {

constexpr char place[] = "programs";

void add_running(check_list &list, const process_facts &process) {
  const long running = seconds_running(process);
  add_check(list, check_result::ok, place, "%s runs (process %d, up %s)", process.name.data(),
            static_cast<int>(process.pid), running >= 0 ? duration_text(running).data() : "?");
}

} // namespace

void read_program_facts(program_facts &facts, const process_facts &daemon) {
  facts = program_facts{};
  rows_of<process_facts> companions;
  list_processes(companions, COMPANION_NAME);
  for (const process_facts &companion : all_rows(companions)) {
    if (companion.network == daemon.network) {
      facts.companion = companion;
    }
  }
  free_rows(companions);
}

void check_programs(check_list &list, const check_subject &subject, const program_facts &facts) {
  if (!subject.has_daemon) {
    add_check(list, check_result::no, place, "%s", text_of(subject.problem));
    add_cure(list, "systemctl restart tarnwick");
    return;
  }
  add_running(list, subject.daemon);
  if (facts.companion.pid == 0) {
    add_check(list, check_result::no, place, "tarnwick-assist does not run beside the daemon");
    add_cure(list, "systemctl restart tarnwick");
    return;
  }
  add_running(list, facts.companion);
  if (!subject.has_state) {
    add_check(list, check_result::unknown, place, "%s", text_of(subject.problem));
  }
}

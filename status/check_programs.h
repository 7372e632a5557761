// The programs' part: daemon and companion run, and the daemon answers.
#pragma once

#include "status/check_list.h"
#include "status/path_facts.h"
#include "status/supervisor_state.h"

struct program_facts {
  process_facts companion;  // pid 0: none runs in the daemon's network namespace
  process_facts supervisor; // pid 0: the daemon's parent is another program, or no daemon and no supervisor runs
  supervisor_state state;   // the supervisor's
};

void read_program_facts(program_facts &facts, const process_facts &daemon);

// `room` is the daemon's: whether it is stopped, and its descriptors.
void check_programs(check_list &list, const check_subject &subject, const program_facts &facts,
                    const process_room &room);

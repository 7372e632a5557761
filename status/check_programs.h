// The programs' part: daemon and companion run, and the daemon answers.
#pragma once

#include "status/check_list.h"
#include "status/check_subject.h"

struct program_facts {
  process_facts companion; // pid 0: none runs in the daemon's network namespace
};

void read_program_facts(program_facts &facts, const process_facts &daemon);

void check_programs(check_list &list, const check_subject &subject, const program_facts &facts);

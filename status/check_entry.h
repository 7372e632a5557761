// The kernel entry's part: how the kernel forwards the group.
#pragma once

#include "status/check_list.h"
#include "status/path_facts.h"

void check_entry(check_list &list, const check_subject &subject);

// The upstream part: the group is joined, and it arrives so that it can be forwarded.
#pragma once

#include "status/check_list.h"
#include "status/path_facts.h"

void check_upstream(check_list &list, const check_subject &subject, const path_facts &facts);

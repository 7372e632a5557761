// The interfaces' part: they are the ones that the daemon registered, and they can carry a stream.
#pragma once

#include "status/check_list.h"
#include "status/path_facts.h"

void check_interfaces(check_list &list, const check_subject &subject, const path_facts &facts);

// The LAN output's part: what is forwarded leaves through the interface and through a bridge's port.
#pragma once

#include "status/check_list.h"
#include "status/path_facts.h"

void check_output(check_list &list, const check_subject &subject, const path_facts &facts);

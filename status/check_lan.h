// The LAN's part: queries can be heard by the hosts, and reports by the daemon.
#pragma once

#include "status/check_list.h"
#include "status/path_facts.h"

void check_lan(check_list &list, const check_subject &subject, const path_facts &facts);

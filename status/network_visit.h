// Looking around in the daemon's network namespace.
#pragma once

#include "status/daemon_process.h"

inline constexpr int NO_VISIT = -1;
inline constexpr int VISIT_REFUSED = -2;

// Enters the daemon's network namespace if it is another one. Returns what `end_network_visit` needs, NO_VISIT if
// there is nothing to enter, or VISIT_REFUSED with errno (it needs CAP_SYS_ADMIN).
int begin_network_visit(const process_facts &daemon);

// Goes back. Ends the program with status 1 where that is refused.
void end_network_visit(int home);

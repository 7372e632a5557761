// Which interfaces of the host the links of a private network stand for: tarnwick-run writes it into their aliases.
#pragma once

#include "status/kernel_tables.h"

#include <sys/types.h>

// Fills in the host's names if the daemon runs in another network namespace. Without CAP_SYS_ADMIN, which entering it
// needs, they stay empty.
void add_host_names(rows_of<mif_row> &mifs, pid_t daemon);

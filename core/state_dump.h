// Snapshot of counters and groups for other programs on the router, asked for with SIGUSR1.
#pragma once

// Writes the three files under /tmp. Called from the loop, never from a signal handler.
void write_state_dump();

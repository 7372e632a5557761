// Waits for the kernel's notifications and for the signals that end the companion.
#pragma once

// Blocks SIGTERM and SIGINT and returns a descriptor on which they can be read, or -1 after it has said why not.
int open_stop_signals();

// Returns EXIT_SUCCESS after SIGTERM or SIGINT, EXIT_FAILURE when notifications can no longer be had.
int run_until_stopped(int stop_signals, int notifications);

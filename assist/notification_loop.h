// Waits for the kernel's notifications, for MLD messages, and for the signals that end the companion.
#pragma once

// Blocks SIGTERM and SIGINT and returns a descriptor on which they can be read, or -1 after it has said why not.
int open_stop_signals();

// What the companion waits on.
struct loop_descriptors {
  int stop_signals;
  int notifications;
  int mld;
};

// Returns EXIT_SUCCESS after SIGTERM or SIGINT, EXIT_FAILURE when notifications or messages can no longer be had.
int run_until_stopped(const loop_descriptors &waited);

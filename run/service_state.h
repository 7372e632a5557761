// What the supervisor does, and why its last start failed: in a file of the runtime folder, for tarnwick-status.
#pragma once

// The file's name. A line each, a blank between the words: "state SECONDS TEXT" and "failed SECONDS TIMES TEXT";
// the seconds are CLOCK_BOOTTIME's. The second line is there once a start has failed,
// and "hosts-full" once the daemon has had no place left to note another host.
inline constexpr char SERVICE_STATE_NAME[] = "state";

// Forgets what an earlier supervisor noted.
void clear_service_state();

// Both tell the service manager as well, and say why where the file cannot be written. Nothing is written while the
// text stays the same.
void tell_state(const char *text);
void tell_failed_start(const char *why);

// From the daemon's log, and at its next start.
void note_host_pool(bool is_full);

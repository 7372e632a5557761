// Commands that several cures share, in the form that fits the system.
#pragma once

// Restarts the programs: systemd or the init script where tarnwick is a service, otherwise who started it by hand.
const char *restart_command();

// The command that shows tarnwick's log on this router.
const char *log_command();

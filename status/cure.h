// Commands that several cures share, in the form that fits the system.
#pragma once

// Restarts the programs: with systemd where it runs, with the init script elsewhere.
const char *restart_command();

// The command that shows tarnwick's log on this router.
const char *log_command();

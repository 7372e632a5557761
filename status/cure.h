// Commands that several cures have in common, as they fit the system.
#pragma once

// Starts the programs anew: by systemd where it runs, by the init script elsewhere.
const char *restart_command();

// The command that shows tarnwick's log on this router.
const char *log_command();

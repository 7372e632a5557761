// Shell commands: the few things that the router's own tools do for the daemon.
#pragma once

// Runs the command through /bin/sh and waits for it. Returns system()'s result, which most callers ignore: the tool
// may be missing on a host without the firmware.
int run_shell_command(const char *command);

// Being in another network namespace for a moment. Sockets opened there belong to it for good.
#pragma once

// Opens the calling process's namespace. -1 with errno.
int open_own_namespace();

// Enters the namespace. Returns what `end_visit` needs, or -1 with errno; the process is where it was then.
int begin_visit(int network_namespace);

// Returns and closes `home`; errno stays as it was. Ends the program with status 1 where that is refused: whatever it
// did next it would do in the wrong namespace.
void end_visit(int home);

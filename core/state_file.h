// The files under /tmp by which the router's other programs learn of groups.
#pragma once

#include <cstdio>

// Creates or truncates a file for writing. A symbolic link, a FIFO or anything else that is not a regular file is
// refused, so that nobody who can write to /tmp directs, stops or kills the daemon. Returns null on failure.
FILE *open_state_file(const char *path);

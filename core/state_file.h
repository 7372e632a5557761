// The files under /tmp by which the router's other programs learn of groups.
#pragma once

#include <cstdio>

// Creates or empties a file for writing, so that nobody who can write to /tmp directs, stops or kills the daemon or
// keeps it from writing:
//   a regular file of root's or the daemon's own user, with one name   is emptied
//   a regular file of another user, or with a second hard link         is replaced by a new one, not emptied
//   a symbolic link that root or the daemon's user made                is followed, to a regular file
//   another user's link, FIFO, socket or device                        is replaced in a sticky folder, else refused
//   anything else                                                      is refused
// Returns null on failure.
FILE *open_state_file(const char *path);

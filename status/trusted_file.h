// Files of the daemon in a folder where everybody can make files.
#pragma once

#include "status/daemon_process.h"

#include <ctime>

// Longer ones are cut: 128 groups and the interfaces of a router take a sixth of it.
inline constexpr std::size_t LARGEST_STATE_FILE_BYTES = 65536;

enum class file_trust {
  good,      // the daemon's own, or nothing is there yet
  replaced,  // another user's, which the daemon replaces when it writes
  refused,   // the daemon cannot write there, and loses descriptors each time it tries
  is_a_link, // root's or the daemon's own: the daemon follows it, this program does not
};

// Looks at what is there without opening it. `user` is the daemon's.
file_trust look_at_state_file(const char *path, uid_t user);

// Reads a regular file with one name, of the daemon's user, that was written since `since` (CLOCK_REALTIME_COARSE, the
// clock of the file times), at most LARGEST_STATE_FILE_BYTES. Returns false with errno: ELOOP for a link, EPERM for any
// other file that is not the daemon's, ESTALE for one that is older.
bool read_state_file(text &content, const char *path, uid_t user, const timespec &since);

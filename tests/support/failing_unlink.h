// Makes the unlinking of records fail, which never happens with the daemon's own lists: what it logs then must still be
// right.
#pragma once

namespace scripted {

// How many of the daemon's next calls of list_remove_node return -1 and change nothing.
extern int UnlinksToFail;

} // namespace scripted

// Lets records refuse to leave their list, which the daemon's own lists never do: what it says then must still be
// right.
#pragma once

namespace scripted {

// So many next calls of list_remove_node by the daemon return -1 and change nothing.
extern int UnlinksToFail;

} // namespace scripted

// Keeping the log from harming the proxy.
#pragma once

// Called before anything else is opened. Closed standard descriptors are filled with /dev/null, or the log would be
// written into whatever socket came next under their number. SIGPIPE is ignored, so that a log reader that dies does
// not take the streams with it. A pipe or socket as standard output or standard error is written without waiting, a
// pipe with a large buffer: when its reader hangs, lines are lost instead of joins.
void protect_standard_streams();

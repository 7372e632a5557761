// The one loop: waits for signals, kernel notifications, the children's lines and the next deadline.
#pragma once

#include "run/options.h"

// Returns the exit status: 0 after SIGTERM and SIGINT, 1 when it cannot go on.
int run_supervisor(const run_options &options);

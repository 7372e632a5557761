// The least that one tick must touch: every timer of every record, once.
#pragma once

#include "mld/mld_router.h"

// Counts down all timers of the downstream interfaces and returns how many records it has visited.
long bare_walk(const mld_router &router);

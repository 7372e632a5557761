// The least that one tick must touch: every timer of every record, once.
#pragma once

#include "mld/mld_router.h"

// Counts all timers of the downstream interfaces down and returns how many records it has met.
long bare_walk(const mld_router &router);

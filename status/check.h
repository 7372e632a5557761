// tarnwick-status --check: a stream's path from the provider to the host, one line per step.
#pragma once

#include "status/check_list.h"
#include "status/options.h"
#include "status/round.h"

inline constexpr int CHECK_ALL_OK = 0;
inline constexpr int CHECK_SAYS_NO = 1;
inline constexpr int CHECK_COULD_NOT_LOOK = 3;

// Looks at everything once and fills `list`, in the order of the path. Takes a little over CHECK_SAMPLE_SECONDS.
void run_check(check_list &list, status_round &round, const status_options &options);

// The exit status that says what the list says: CHECK_COULD_NOT_LOOK where no step says NO and one is unknown.
int check_status(const check_list &list);

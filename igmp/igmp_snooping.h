// Telling the router's snooping program that a group is gone.
#pragma once

#include <cstdint>

// Writes "/tmp/igmprt_leave_record" and signals `igmp_snooping` with SIGUSR1. Returns the shell's result; -1 if the
// file cannot be opened, and nobody is signalled then, since the program would act on an old record. `source` is
// InAddrAny when the whole group went.
int igmp_snooping_leave(std::uint32_t source, std::uint32_t group);

// When tarnwick ends a group on an interface, after what a host has said: tarnwick counts whole seconds by ticks, and
// its record of the group is not to be seen from outside.
#pragma once

#include "assist/group_table.h"

// After a report that was the last thing heard: its group timer of 350 seconds has run out.
tenths end_of_silence(tenths now);

// A report for the group: any source, or listed ones.
void time_join(watched_group &group, std::size_t place, tenths now);

// A host has left the group (TO_IN without sources).
void time_leave(watched_group &group, std::size_t place, tenths now);

// A host has blocked sources.
void time_block(watched_group &group, std::size_t place, std::size_t source_count, tenths now);

// A router's forwarding cache as the companion sees it: notifications in any order, messages of hosts, and time.
#pragma once

#include <cstdint>
#include <span>

namespace world {

void start_entries();

// One step: a notification, a message of a host, the end or return of the daemon, or up to four minutes. Ends the
// program when a record is not as it must be.
void play_entries_step(std::span<const std::uint8_t> script);

// Lets a second pass.
void pass_second_of_entries();

} // namespace world

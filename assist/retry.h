// A second look after a while: for refusals that pass by themselves (memory) and for repairs that came too thick.
// The kernel announces everything else, so normally no timer runs.
#pragma once

#include <cstdint>
#include <limits>

// Milliseconds of the monotonic clock.
std::int64_t monotonic_ms();

// The same clock in tenths of a second, from which milliseconds come by multiplying; wraps around after 13 years.
std::uint32_t monotonic_tenths();

// Processor time that this process has used, in microseconds.
std::int64_t processor_us();

// As a point in time: never.
inline constexpr std::int64_t NO_DEADLINE = std::numeric_limits<std::int64_t>::max();

// Sets the timer, if none runs yet.
void want_retry();

// The same, if `reason` (an errno) is one that passes by itself.
void want_retry_after(int reason);

// For poll: milliseconds until the timer ends, 0 = now, -1 = no timer runs.
int ms_until_retry();

// Whether the timer has ended; stops it if so.
bool take_due_retry();

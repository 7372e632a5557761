// The one clock of the program.
#pragma once

#include <cstdint>

// CLOCK_MONOTONIC in milliseconds.
std::int64_t monotonic_milliseconds();

// Numbers in a form for people.
#pragma once

#include <array>
#include <cstdint>

using number_text = std::array<char, 32>;

number_text bytes_text(std::uint64_t bytes);   // "999 B", "13.6 MB"
number_text rate_text(double bits_per_second); // "0 bit/s", "5.21 Mbit/s"
number_text duration_text(long seconds);       // "42 s", "3 h 12 min", "5 d 4 h"

// A bar of eight columns, as full as `share` (0 to 1); any share above 0 shows. Block characters for UTF-8 terminals,
// '#' for others.
using bar_text = std::array<char, 32>;
bar_text bar_of(double share, bool is_utf8);

// Walking the lines of a text.
#pragma once

#include <array>

// Longer lines are cut; no line that the daemon or the kernel writes comes near.
using line_buffer = std::array<char, 1024>;

// Copies the line at `place` and moves behind it. Returns false at the end of the text.
bool next_line(line_buffer &line, const char *&place);

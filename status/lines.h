// Walking the lines of a text.
#pragma once

#include <array>

// Longer lines are cut; the daemon and the kernel write much shorter ones.
using line_buffer = std::array<char, 1024>;

// Copies the line at `place` and moves past it. Returns false at the end of the text.
bool next_line(line_buffer &line, const char *&place);

// Where a page goes: a terminal that is redrawn, or a plain stream.
#pragma once

#include "status/page.h"

struct screen {
  bool is_terminal;
  bool has_colour; // a terminal, and NO_COLOR is not set
  bool is_utf8;
  std::size_t rows;            // 0: unlimited
  std::size_t columns;         // 0: unlimited
  std::size_t table_columns{}; // in which tables are to fit; 0: unlimited
};

// Looks at standard output. `is_redrawn` limits the page to the window, since a redrawn page cannot be scrolled back.
screen measure_screen(bool is_redrawn);

// Writes the page at the cursor. Lines wider than the window are cut; the last line counts those that do not fit.
void add_page(text &output, const screen &screen, const page &page);

// Hide and show the cursor, and begin in the upper left corner; what an earlier page left behind is erased.
void add_redrawn_page(text &output, const screen &screen, const page &page);
void start_redrawing(const screen &screen);
void end_redrawing(const screen &screen);

// Writes everything to standard output. Returns whether that succeeded.
bool write_out(const text &content);

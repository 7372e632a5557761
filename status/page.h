// A page: lines to be shown, and tables that are laid out into such lines.
#pragma once

#include "status/text.h"

enum class line_style { plain, heading, faint, warning };

struct page_line {
  line_style style;
  std::size_t offset; // into `bytes`, NUL-terminated there
};

struct page {
  text bytes;
  rows_of<page_line> lines;
};

void clear_page(page &page);
void free_page(page &page);
void add_line(page &page, line_style style, const char *line);

// The same, broken at blanks into lines of at most `columns` (0: unlimited).
void add_paragraph(page &page, line_style style, const char *line, std::size_t columns);

const char *line_text(const page &page, const page_line &line);

enum class alignment { left, right };

struct column {
  const char *heading;
  alignment side;
  int leave_out{}; // where the table is too wide: 1 goes first, 2 next; 0 never goes
};

// Cells are added row by row, as many as there are columns.
struct table {
  std::span<const column> columns;
  text bytes;
  rows_of<std::size_t> cells; // offsets into `bytes`
  rows_of<line_style> row_styles;
};

void begin_row(table &table, line_style style);
void add_cell(table &table, const char *cell);
void add_number_cell(table &table, unsigned long long number);

// Adds the heading and the rows, every column as wide as its widest cell, no blanks at line ends. A table without rows
// adds nothing. One that is wider than `columns` (0: unlimited) loses columns that it can do without, until it fits.
void add_table(page &page, const table &table, std::size_t columns);

void free_table(table &table);

#include "status/page.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr std::size_t gap_columns = 2;

const char *cell_text(const table &laid, std::size_t row, std::size_t at) {
  return laid.bytes.first + laid.cells.first[row * laid.columns.size() + at];
}

std::size_t width_of(const table &laid, std::size_t at) {
  std::size_t width = columns_of(laid.columns[at].heading);
  for (std::size_t row = 0; row < laid.row_styles.count; ++row) {
    width = std::max(width, columns_of(cell_text(laid, row, at)));
  }
  return width;
}

void add_blanks(text &line, std::size_t count) {
  for (; count > 0; --count) {
    add_bytes(line, " ", 1);
  }
}

void add_padded(text &line, const char *cell, std::size_t width, alignment side) {
  const std::size_t missing = width - columns_of(cell);
  if (side == alignment::right) {
    add_blanks(line, missing);
  }
  add_bytes(line, cell, std::strlen(cell));
  if (side == alignment::left) {
    add_blanks(line, missing);
  }
}

void strip_blanks(text &line) {
  while (line.count > 0 && line.first[line.count - 1] == ' ') {
    line.first[--line.count] = '\0';
  }
}

// `cell_of` gives the cell of a column.
template <typename cell_getter>
void add_laid_line(page &shown, line_style style, const table &laid, const rows_of<std::size_t> &widths,
                   cell_getter cell_of) {
  text line;
  for (std::size_t at = 0; at < widths.count; ++at) {
    add_blanks(line, at > 0 ? gap_columns : 0);
    add_padded(line, cell_of(at), widths.first[at], laid.columns[at].side);
  }
  strip_blanks(line);
  add_line(shown, style, text_of(line));
  free_rows(line);
}

} // namespace

void clear_page(page &shown) {
  clear_rows(shown.bytes);
  clear_rows(shown.lines);
}

void free_page(page &shown) {
  free_rows(shown.bytes);
  free_rows(shown.lines);
}

void add_line(page &shown, line_style style, const char *line) {
  add_row(shown.lines, page_line{style, shown.bytes.count});
  add_bytes(shown.bytes, line, std::strlen(line) + 1);
}

const char *line_text(const page &shown, const page_line &line) { return shown.bytes.first + line.offset; }

void begin_row(table &laid, line_style style) { add_row(laid.row_styles, style); }

void add_cell(table &laid, const char *cell) {
  add_row(laid.cells, laid.bytes.count);
  add_bytes(laid.bytes, cell, std::strlen(cell) + 1);
}

void add_number_cell(table &laid, unsigned long long number) {
  add_row(laid.cells, laid.bytes.count);
  add_text(laid.bytes, "%llu", number);
  add_bytes(laid.bytes, "", 1);
}

void add_table(page &shown, const table &laid) {
  if (laid.row_styles.count == 0) {
    return;
  }
  rows_of<std::size_t> widths;
  for (std::size_t at = 0; at < laid.columns.size(); ++at) {
    add_row(widths, width_of(laid, at));
  }
  add_laid_line(shown, line_style::heading, laid, widths, [&](std::size_t at) { return laid.columns[at].heading; });
  for (std::size_t row = 0; row < laid.row_styles.count; ++row) {
    add_laid_line(shown, laid.row_styles.first[row], laid, widths,
                  [&](std::size_t at) { return cell_text(laid, row, at); });
  }
  free_rows(widths);
}

void free_table(table &laid) {
  free_rows(laid.bytes);
  free_rows(laid.cells);
  free_rows(laid.row_styles);
}

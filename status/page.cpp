#include "status/page.h"

#include "status/printable.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace {

constexpr std::size_t gap_columns = 2;
constexpr std::size_t left_out = SIZE_MAX; // in place of a column's width

const char *cell_text(const table &table, std::size_t row, std::size_t at) {
  return table.bytes.first + table.cells.first[row * table.columns.size() + at];
}

std::size_t width_of(const table &table, std::size_t at) {
  std::size_t width = columns_of(table.columns[at].heading);
  for (std::size_t row = 0; row < table.row_styles.count; ++row) {
    width = std::max(width, columns_of(cell_text(table, row, at)));
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

std::size_t total_width(const rows_of<std::size_t> &widths) {
  std::size_t total = 0;
  for (const std::size_t width : all_rows(widths)) {
    if (width != left_out) {
      total += width + (total > 0 ? gap_columns : 0);
    }
  }
  return total;
}

// Leaves the columns out one by one, the least needed ones first.
void fit(rows_of<std::size_t> &widths, const table &table, std::size_t columns) {
  const auto is_last = [](const column &left, const column &right) { return left.leave_out < right.leave_out; };
  const int last = std::max_element(table.columns.begin(), table.columns.end(), is_last)->leave_out;
  for (int order = 1; order <= last && columns > 0 && total_width(widths) > columns; ++order) {
    for (std::size_t at = 0; at < widths.count; ++at) {
      widths.first[at] = table.columns[at].leave_out == order ? left_out : widths.first[at];
    }
  }
}

// `cell_of` gives the cell of a column.
template <typename cell_getter>
void add_table_line(page &page, line_style style, const table &table, const rows_of<std::size_t> &widths,
                    cell_getter cell_of) {
  text line;
  for (std::size_t at = 0; at < widths.count; ++at) {
    if (widths.first[at] == left_out) {
      continue;
    }
    add_blanks(line, line.count > 0 ? gap_columns : 0);
    add_padded(line, cell_of(at), widths.first[at], table.columns[at].side);
  }
  strip_blanks(line);
  add_line(page, style, text_of(line));
  free_rows(line);
}

} // namespace

void clear_page(page &page) {
  clear_rows(page.bytes);
  clear_rows(page.lines);
}

void free_page(page &page) {
  free_rows(page.bytes);
  free_rows(page.lines);
}

void add_line(page &page, line_style style, const char *line) {
  add_row(page.lines, page_line{style, page.bytes.count});
  add_printable(page.bytes, line, true);
  add_bytes(page.bytes, "", 1);
}

void add_paragraph(page &page, line_style style, const char *line, std::size_t columns) {
  const char *rest = line;
  while (columns > 0 && columns_of(rest) > columns) {
    std::size_t length = bytes_of_columns(rest, columns);
    while (length > 0 && rest[length] != ' ') {
      --length;
    }
    length = length > 0 ? length : bytes_of_columns(rest, columns);
    text part;
    add_bytes(part, rest, length);
    add_line(page, style, text_of(part));
    free_rows(part);
    rest += length + std::strspn(rest + length, " ");
  }
  add_line(page, style, rest);
}

const char *line_text(const page &page, const page_line &line) { return page.bytes.first + line.offset; }

void begin_row(table &table, line_style style) { add_row(table.row_styles, style); }

void add_cell(table &table, const char *cell) {
  add_row(table.cells, table.bytes.count);
  add_printable(table.bytes, cell, true); // before the widths are measured
  add_bytes(table.bytes, "", 1);
}

void add_number_cell(table &table, unsigned long long number) {
  add_row(table.cells, table.bytes.count);
  add_text(table.bytes, "%llu", number);
  add_bytes(table.bytes, "", 1);
}

void add_table(page &page, const table &table, std::size_t columns) {
  if (table.row_styles.count == 0) {
    return;
  }
  rows_of<std::size_t> widths;
  for (std::size_t at = 0; at < table.columns.size(); ++at) {
    add_row(widths, width_of(table, at));
  }
  fit(widths, table, columns);
  add_table_line(page, line_style::heading, table, widths, [&](std::size_t at) { return table.columns[at].heading; });
  for (std::size_t row = 0; row < table.row_styles.count; ++row) {
    add_table_line(page, table.row_styles.first[row], table, widths,
                   [&](std::size_t at) { return cell_text(table, row, at); });
  }
  free_rows(widths);
}

void free_table(table &table) {
  free_rows(table.bytes);
  free_rows(table.cells);
  free_rows(table.row_styles);
}

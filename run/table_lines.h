// The kernel's text tables under /proc, line by line. Not by stdio, whose streams take a page of heap for good.
#pragma once

#include <array>
#include <cstddef>

using table_line = std::array<char, 256>;

struct table_lines {
  int file;
  std::size_t begin; // of what is read and not handed out yet
  std::size_t end;
  std::array<char, 1024> bytes;
};

// Returns false with errno when the table cannot be opened.
bool open_table(table_lines &table, const char *path);

// Takes the next line, NUL-terminated, without its newline, longer lines cut. False at the end of what can be read.
bool next_table_line(table_lines &table, table_line &line);

void close_table(table_lines &table);

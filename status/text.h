// Text and tables that grow, with nothing but the C library, so that the program stays small.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>
#include <type_traits>

// Records in one block that doubles when it is full. Plain records only; `free_rows` gives the block back.
template <typename record> struct rows_of {
  static_assert(std::is_trivially_copyable_v<record>);
  record *first = nullptr;
  std::size_t count = 0;
  std::size_t room = 0;
};

// Says that memory ran out and ends the program with status 1: it has nothing sensible to show.
[[noreturn]] void end_without_memory();

template <typename record> void make_room(rows_of<record> &rows, std::size_t wanted) {
  constexpr std::size_t first_room = 16;
  if (wanted <= rows.room) {
    return;
  }
  std::size_t room = rows.room == 0 ? first_room : rows.room;
  while (room < wanted) {
    room *= 2;
  }
  void *block = std::realloc(static_cast<void *>(rows.first), room * sizeof(record));
  if (block == nullptr) {
    end_without_memory();
  }
  rows.first = static_cast<record *>(block);
  rows.room = room;
}

template <typename record> record &add_row(rows_of<record> &rows, const record &row) {
  make_room(rows, rows.count + 1);
  record *place = rows.first + rows.count++;
  std::memcpy(static_cast<void *>(place), &row, sizeof(record));
  return *place;
}

// Empties the rows and keeps their memory for the next round.
template <typename record> void clear_rows(rows_of<record> &rows) { rows.count = 0; }

template <typename record> void free_rows(rows_of<record> &rows) {
  std::free(rows.first);
  rows = rows_of<record>{};
}

template <typename record> std::span<record> all_rows(const rows_of<record> &rows) { return {rows.first, rows.count}; }

// A text under construction, NUL-terminated as soon as something was added.
using text = rows_of<char>;

// printf's format.
void add_text(text &built, const char *format, ...) __attribute__((format(printf, 2, 3)));
void add_text_list(text &built, const char *format, va_list arguments);

void add_bytes(text &built, const char *bytes, std::size_t count);

// The text so far; "" before anything was added.
const char *text_of(const text &built);

// Columns on a terminal: UTF-8 continuation bytes take none.
std::size_t columns_of(const char *utf8);

// Bytes of the longest beginning of `utf8` that takes at most `columns`.
std::size_t bytes_of_columns(const char *utf8, std::size_t columns);

// Reads an open file into `content` (emptied first), at most `most_bytes` of it. Returns whether it could be read;
// errno says why not.
bool read_open_file(text &content, int file, std::size_t most_bytes);

// Reads a whole file of /proc the same way; its length is the kernel's.
bool read_file(text &content, const char *path);

// Who has spoken on the LANs, as the companion has noted it (assist/heard_row.h).
#pragma once

#include "assist/heard_row.h"
#include "status/state_files.h"

struct heard_line {
  heard_kind kind;
  std::uint32_t index; // interface
  group_text group;
  group_text host; // "::" for the companion itself
  long seconds_ago;
};

// Reads the companion's table. Returns false if it has none or it may not be read.
bool read_heard(rows_of<heard_line> &lines, pid_t companion);

// Of the table's bytes; rows that make no sense are skipped.
void parse_heard(rows_of<heard_line> &lines, const text &table, std::int64_t now_ms);

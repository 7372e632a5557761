// The snapshot as a page for people.
#pragma once

#include "status/page.h"
#include "status/snapshot.h"

// Adds the title, the interfaces, the groups with their streams, and hints about what stops a stream.
// `is_utf8`: bars may use block characters. `columns`: width in which the tables are to fit, 0 = unlimited.
void add_report(page &page, const snapshot &snapshot, bool is_utf8, std::size_t columns = 0);

// "br0, lan1": the names of an entry's outputs.
void add_output_names(text &names, std::uint32_t outputs, const rows_of<mif_row> &mifs, const char *separator);

// What the last column says about a stream; "" if it flows as it should.
const char *stream_note(stream_kind kind);

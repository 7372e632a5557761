// A log file that is bounded: full, it becomes its own predecessor, "FILE.1", in place of the one before.
#pragma once

#include <cstdint>
#include <string_view>

// Opens or continues a regular file. On false errno says why not (EINVAL: not a regular file).
bool open_log_file(const char *path, std::uint64_t most_bytes);

// Appends whole lines, each with its newline; what the disk does not take is lost. A file that somebody has removed or
// renamed is made anew. Does nothing when none is open.
void append_to_log_file(std::string_view lines);

void close_log_file();

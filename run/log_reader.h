// Reads what daemon and companion print, line by line, bounded in length and rate.
#pragma once

#include "run/log_sink.h"

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t LONGEST_LOG_LINE = 1024;
inline constexpr std::int64_t LOG_REST_MS = 10;

struct log_reader {
  int descriptor; // -1 = closed
  log_origin origin;
  std::array<char, LONGEST_LOG_LINE> line; // the beginning of a line whose end has not come yet
  std::size_t length;
  bool is_skipping; // the rest of a line that was too long
  std::int64_t read_at_ms; // the last time
  std::int64_t rests_until_ms;
};

// Makes the pipe. `write_end` is for the child and not passed on by exec (the child dup2()s it). False after it has
// said why not.
bool open_log_reader(log_reader &reader, log_origin origin, int &write_end);

// Which lines of the daemon are passed on from now on. Those of the companion always are, unless it is none.
void choose_log_lines(log_choice choice);

// Reads what is there without waiting, at most a bounded amount, and passes it on. Closes at the end of input. When it
// has read everything, and the read before was at most LOG_REST_MS ago, it rests for as long: the lines of a burst of
// reports gather and do not wake the supervisor for each.
void read_log(log_reader &reader);

// For poll: the descriptor, -1 while the reader rests.
int awaited_log(const log_reader &reader, std::int64_t now_ms);

// For poll: milliseconds until the rest ends; -1 = it does not rest.
int ms_until_log_rest_ends(const log_reader &reader, std::int64_t now_ms);

// What read_log does with what it has read.
void take_log_bytes(log_reader &reader, std::string_view bytes);

// Reads to the end of what is there and closes: for a child that has ended.
void close_log_reader(log_reader &reader);

// For poll: milliseconds until "so many lines were left out" is due; -1 = nothing is.
int ms_until_log_summary(std::int64_t now_ms);
void write_due_log_summary(std::int64_t now_ms);

// Defined by the supervisor: sees every error line of the daemon, also those that are not passed on.
void note_daemon_error(std::string_view line);

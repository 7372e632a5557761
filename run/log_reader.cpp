#include "run/log_reader.h"

#include "core/bulk_memory.h"
#include "core/text_part.h"
#include "run/log_filter.h"
#include "run/log_line.h"
#include "run/log_rate.h"
#include "run/report.h"
#include "run/service_state.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t read_bytes = 4096; // one page, so that a burst of lines costs the supervisor no more
constexpr int reads_at_once = 32;        // then the supervisor looks at what else has happened
constexpr int reads_of_an_ended = 512;   // more than the daemon's pipe of 1 MiB holds
constexpr char cut_mark[] = " ... (cut)";
// The daemon's pool of host records (mld/mld_host.cpp) is used up.
constexpr std::string_view no_free_host = "MLD Error:No more free host";
// The shell's word on a switch that a mainline kernel sets by itself: harmless, and there at every start.
constexpr std::string_view harmless_complaint = "/mc_forwarding: Permission denied";

log_choice Choice = log_choice::info;
log_filter Filter;
log_rate Rate;
std::int64_t Now_ms;

std::int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
}

void pass(log_origin origin, log_priority priority, std::string_view line) {
  if (may_pass(Rate, Now_ms)) {
    append_log_line(origin, priority, line);
  }
}

void pass_held(held_log_line &held) {
  const std::string_view line = take_held_log_line(held);
  if (!line.empty()) {
    pass(log_origin::daemon, log_priority::information, line);
  }
}

bool is_chosen(log_choice least) { return Choice <= least && Choice != log_choice::none; }

void handle_ordinary_line(std::string_view line, const log_line_parts &parts) {
  const bool is_wanted = is_for_operator(Filter, line, parts.message);
  if (Choice == log_choice::all) {
    pass(log_origin::daemon, is_wanted || parts.level == 'I' ? log_priority::information : log_priority::debug, line);
  } else if (Choice == log_choice::info && (is_wanted || parts.level == 'I')) {
    pass_held(Filter.host);
    pass_held(Filter.group);
    pass(log_origin::daemon, log_priority::information, line);
  }
}

void handle_foreign_line(std::string_view line) {
  const bool is_harmless = line.ends_with(harmless_complaint);
  if (is_chosen(is_harmless ? log_choice::all : log_choice::error)) {
    pass(log_origin::daemon, is_harmless ? log_priority::debug : log_priority::warning, line);
  }
}

void handle_daemon_line(std::string_view line) {
  const log_line_parts parts = take_log_line_apart(line);
  switch (parts.level) {
  case 'E':
    note_daemon_error(line);
    if (parts.message.starts_with(no_free_host)) {
      note_host_pool(true);
    }
    if (is_chosen(log_choice::error)) {
      pass(log_origin::daemon, log_priority::error, line);
    }
    return;
  case '\0':
    handle_foreign_line(line);
    return;
  default:
    handle_ordinary_line(line, parts);
    return;
  }
}

void handle_line(log_origin origin, std::string_view line) {
  if (line.empty()) {
    return;
  }
  if (origin == log_origin::daemon) {
    handle_daemon_line(line);
  } else if (is_chosen(log_choice::error)) {
    pass(origin, log_priority::information, line); // few, and failures are among them
  }
}

void handle_cut_line(log_reader &reader) {
  constexpr std::size_t mark_length = sizeof(cut_mark) - 1;
  std::memcpy(&reader.line[LONGEST_LOG_LINE - mark_length], cut_mark, mark_length);
  handle_line(reader.origin, {reader.line.data(), LONGEST_LOG_LINE});
  reader.length = 0;
  reader.is_skipping = true;
}

// Keeps a piece without its line's end until the end comes.
void keep(log_reader &reader, std::string_view piece) {
  if (reader.is_skipping) {
    return;
  }
  const std::size_t fitting = std::min(piece.size(), LONGEST_LOG_LINE - reader.length);
  std::memcpy(&reader.line[reader.length], piece.data(), fitting);
  reader.length += fitting;
  if (fitting < piece.size()) {
    handle_cut_line(reader);
  }
}

void end_kept_line(log_reader &reader) {
  if (!reader.is_skipping) {
    handle_line(reader.origin, {reader.line.data(), reader.length});
  }
  reader.length = 0;
  reader.is_skipping = false;
}

void handle_end_of_line(log_reader &reader, std::string_view rest) {
  const bool is_whole = reader.length == 0 && !reader.is_skipping && rest.size() <= LONGEST_LOG_LINE;
  if (is_whole) {
    handle_line(reader.origin, rest); // where it stands: what is read is seldom copied
    return;
  }
  keep(reader, rest);
  end_kept_line(reader);
}

// False: nothing more is there now, or ever.
bool read_once(log_reader &reader) {
  IN_BULK_MEMORY static std::array<char, read_bytes> bytes;
  const ssize_t length = read(reader.descriptor, bytes.data(), bytes.size());
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
    return false;
  }
  if (length <= 0) {
    end_kept_line(reader);
    close(reader.descriptor);
    reader.descriptor = -1;
    return false;
  }
  take_log_bytes(reader, {bytes.data(), static_cast<std::size_t>(length)});
  return static_cast<std::size_t>(length) == bytes.size();
}

// False: more may be there.
bool read_some(log_reader &reader, int most_reads) {
  Now_ms = monotonic_ms();
  write_due_log_summary(Now_ms);
  while (reader.descriptor >= 0 && most_reads > 0 && read_once(reader)) {
    --most_reads;
  }
  flush_log_lines();
  return most_reads > 0;
}

} // namespace

void choose_log_lines(log_choice choice) { Choice = choice; }

bool open_log_reader(log_reader &reader, log_origin origin, int &write_end) {
  std::array<int, 2> ends;
  reader = {};
  reader.descriptor = -1;
  reader.origin = origin;
  write_end = -1;
  if (pipe2(ends.data(), O_CLOEXEC) == -1) {
    say_refused(errno, "cannot make a pipe for the log");
    return false;
  }
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  reader.descriptor = ends[0];
  write_end = ends[1];
  if (origin == log_origin::daemon) {
    Filter = {};
  }
  return true;
}

void take_log_bytes(log_reader &reader, std::string_view bytes) {
  for (std::size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
    handle_end_of_line(reader, first_part(bytes, end));
    bytes.remove_prefix(end + 1);
  }
  keep(reader, bytes);
}

void read_log(log_reader &reader) {
  const bool is_all_read = read_some(reader, reads_at_once);
  const bool is_burst = Now_ms - reader.read_at_ms <= LOG_REST_MS;
  reader.read_at_ms = Now_ms;
  if (is_all_read && is_burst) {
    reader.rests_until_ms = Now_ms + LOG_REST_MS;
  }
}

int awaited_log(const log_reader &reader, std::int64_t now_ms) {
  return now_ms < reader.rests_until_ms ? -1 : reader.descriptor;
}

int ms_until_log_rest_ends(const log_reader &reader, std::int64_t now_ms) {
  const bool rests = reader.descriptor >= 0 && now_ms < reader.rests_until_ms;
  return rests ? static_cast<int>(reader.rests_until_ms - now_ms) : -1;
}

void close_log_reader(log_reader &reader) {
  read_some(reader, reads_of_an_ended);
  if (reader.descriptor >= 0) {
    end_kept_line(reader);
    flush_log_lines();
    close(reader.descriptor);
    reader.descriptor = -1;
  }
}

int ms_until_log_summary(std::int64_t now_ms) { return ms_until_summary(Rate, now_ms); }

void write_due_log_summary(std::int64_t now_ms) {
  const std::uint64_t count = take_left_out(Rate, now_ms);
  if (count > 0) {
    std::array<char, 96> line;
    const int length = std::snprintf(line.data(), line.size(), "%" PRIu64 " lines of the log were left out",
                                     count + take_lost_log_lines());
    write_log_line(log_origin::supervisor, log_priority::warning, {line.data(), static_cast<std::size_t>(length)});
  }
}

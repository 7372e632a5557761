#include "run/log_sink.h"

#include "core/bulk_memory.h"
#include "core/text_part.h"
#include "run/log_file.h"
#include "run/report.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr char program_name[] = "tarnwick-run";
constexpr std::size_t batch_bytes = 8192;
constexpr std::size_t longest_line = 2048; // beside which a batch has room for what is put in front
constexpr std::size_t longest_front = 64;
static_assert(longest_line + longest_front < batch_bytes);

enum class sink { standard_error, journal, system_log };

// The counts come first: short texts then touch one page of memory and not two.
struct line_batch {
  std::size_t length;
  std::uint64_t lines;
  std::array<char, batch_bytes> text;
};

sink Sink = sink::standard_error;
bool HasFile = false;
IN_BULK_MEMORY line_batch ForReader; // standard error, the journal or syslog(3)
IN_BULK_MEMORY line_batch ForFile;
std::uint64_t LostLines = 0;

// Whether standard error is the stream that the service manager has opened to its journal (systemd.exec(5)).
bool is_journal(const struct stat &status) {
  const char *stream = std::getenv("JOURNAL_STREAM");
  std::array<char, 64> own;
  std::snprintf(own.data(), own.size(), "%llu:%llu", static_cast<unsigned long long>(status.st_dev),
                static_cast<unsigned long long>(status.st_ino));
  return stream != nullptr && std::strcmp(stream, own.data()) == 0;
}

bool is_null_device(const struct stat &status) {
  constexpr unsigned memory_devices = 1; // Documentation/admin-guide/devices.txt
  constexpr unsigned null_device = 3;
  return S_ISCHR(status.st_mode) && major(status.st_rdev) == memory_devices && minor(status.st_rdev) == null_device;
}

sink choose_sink() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) == -1 || is_null_device(status)) {
    return sink::system_log;
  }
  return is_journal(status) ? sink::journal : sink::standard_error;
}

void put(line_batch &batch, std::string_view text) {
  std::memcpy(&batch.text[batch.length], text.data(), text.size());
  batch.length += text.size();
}

void put_line(line_batch &batch, std::string_view line) {
  std::transform(line.begin(), line.end(), &batch.text[batch.length],
                 [](char letter) { return letter < ' ' || letter > '~' ? '?' : letter; });
  batch.length += line.size();
  put(batch, "\n");
  ++batch.lines;
}

void make_empty(line_batch &batch) {
  batch.length = 0;
  batch.lines = 0;
}

void write_to_reader() {
  if (ForReader.length > 0 &&
      write(STDERR_FILENO, ForReader.text.data(), ForReader.length) != static_cast<ssize_t>(ForReader.length)) {
    LostLines += ForReader.lines;
  }
  make_empty(ForReader);
}

void write_to_file() {
  append_to_log_file({ForFile.text.data(), ForFile.length});
  make_empty(ForFile);
}

// "2026-11-22 00:59:24 ", local time.
void put_time(line_batch &batch) {
  const std::time_t now = std::time(nullptr);
  static std::time_t shown_second = 0;
  static std::array<char, 32> shown{};
  if (now != shown_second) {
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(shown.data(), shown.size(), "%Y-%m-%d %H:%M:%S ", &local);
    shown_second = now;
  }
  put(batch, shown.data());
}

std::string_view name_in_front(log_origin origin) {
  return origin == log_origin::supervisor ? "tarnwick-run: " : ""; // the companion's lines bring their name along
}

void make_room(line_batch &batch, std::size_t line_bytes, void (*write_out)()) {
  if (batch.length + line_bytes + longest_front > batch.text.size()) {
    write_out();
  }
}

void append_for_reader(log_origin origin, log_priority priority, std::string_view line) {
  make_room(ForReader, line.size(), write_to_reader);
  if (Sink == sink::journal) {
    const std::array<char, 3> front{'<', static_cast<char>('0' + static_cast<int>(priority)), '>'};
    put(ForReader, {front.data(), front.size()}); // the journal knows whose line it is
  } else {
    put(ForReader, name_in_front(origin));
  }
  put_line(ForReader, line);
}

void send_to_system_log(log_priority priority, std::string_view line) {
  put_line(ForReader, line);
  syslog(static_cast<int>(priority), "%.*s", static_cast<int>(line.size()), ForReader.text.data());
  make_empty(ForReader);
}

} // namespace

bool open_log_sink(const run_options &options) {
  Sink = choose_sink();
  if (Sink == sink::system_log) {
    openlog(program_name, LOG_PID, LOG_DAEMON);
  }
  if (options.log_file == nullptr) {
    return true;
  }
  HasFile = open_log_file(options.log_file, options.log_file_bytes);
  if (!HasFile) {
    say_refused(errno, "cannot write the log to %s", options.log_file);
  }
  return HasFile;
}

void append_log_line(log_origin origin, log_priority priority, std::string_view line) {
  const std::string_view shown = first_part(line, longest_line);
  if (Sink == sink::system_log) {
    send_to_system_log(priority, shown);
  } else {
    append_for_reader(origin, priority, shown);
  }
  if (HasFile) {
    make_room(ForFile, shown.size(), write_to_file);
    put_time(ForFile);
    put(ForFile, name_in_front(origin));
    put_line(ForFile, shown);
  }
}

void flush_log_lines() {
  write_to_reader();
  if (ForFile.length > 0) {
    write_to_file();
  }
}

void write_log_line(log_origin origin, log_priority priority, std::string_view line) {
  append_log_line(origin, priority, line);
  flush_log_lines();
}

std::uint64_t take_lost_log_lines() {
  const std::uint64_t lost = LostLines;
  LostLines = 0;
  return lost;
}

void close_log_sink() {
  flush_log_lines();
  close_log_file();
  HasFile = false;
  if (Sink == sink::system_log) {
    closelog();
  }
  Sink = sink::standard_error;
}

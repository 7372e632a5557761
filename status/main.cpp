#include "status/json_report.h"
#include "status/lines.h"
#include "status/options.h"
#include "status/report.h"
#include "status/round.h"
#include "status/screen.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <ctime>

namespace {

constexpr int status_failed = 1;
constexpr int status_usage_error = 2;
constexpr int once_sample_seconds = 1; // long enough for a rate, short enough to wait for

volatile std::sig_atomic_t IsRunning = 1;

void stop_watching(int) { IsRunning = 0; }

// Returns early when a signal ends the watch.
void wait_seconds(int seconds) {
  const timespec wait{seconds, 0};
  nanosleep(&wait, nullptr);
}

int say_problem(text &problem) {
  std::fprintf(stderr, "tarnwick-status: %s\n", text_of(problem));
  free_rows(problem);
  return status_failed;
}

int show_once(const status_options &options) {
  static status_round round;
  text problem;
  process_facts daemon;
  if (!find_daemon(round, options.daemon, daemon, problem) || !take_sample(round, daemon, problem)) {
    return say_problem(problem);
  }
  wait_seconds(once_sample_seconds);
  if (!take_snapshot(round, daemon, problem)) {
    return say_problem(problem);
  }
  text content;
  if (options.mode == status_mode::json) {
    add_json(round.joined, newest_sample(round).mifs, sample_seconds(round), content);
  } else {
    const screen onto = measure_screen(false);
    page shown;
    add_report(round.joined, newest_sample(round).mifs, onto.is_utf8, shown);
    add_page(onto, shown, content);
    free_page(shown);
  }
  const bool is_written = write_out(content);
  free_rows(content);
  return is_written ? EXIT_SUCCESS : status_failed;
}

// A round that fails is shown in place of the table; the next one tries again.
void build_watched_page(const status_options &options, status_round &round, const screen &onto, page &shown) {
  text problem;
  process_facts daemon;
  clear_page(shown);
  if (find_daemon(round, options.daemon, daemon, problem) && take_snapshot(round, daemon, problem)) {
    add_report(round.joined, newest_sample(round).mifs, onto.is_utf8, shown);
  } else if (IsRunning == 1) {
    line_buffer line;
    for (const char *place = text_of(problem); next_line(place, line);) {
      add_line(shown, line_style::warning, line.data());
    }
  }
  free_rows(problem);
}

int watch(const status_options &options) {
  static status_round round;
  std::signal(SIGINT, stop_watching);
  std::signal(SIGTERM, stop_watching);
  page shown;
  text content;
  bool is_written = true;
  start_redrawing(measure_screen(true));
  while (IsRunning == 1 && is_written) {
    const screen onto = measure_screen(true);
    build_watched_page(options, round, onto, shown);
    clear_rows(content);
    if (onto.is_terminal) {
      add_redrawn_page(onto, shown, content);
    } else {
      add_page(onto, shown, content);
      add_text(content, "\n");
    }
    if (IsRunning == 1) {
      is_written = write_out(content);
      wait_seconds(options.watch_seconds);
    }
  }
  end_redrawing(measure_screen(true));
  free_page(shown);
  free_rows(content);
  return is_written ? EXIT_SUCCESS : status_failed;
}

} // namespace

int main(int argc, char **argv) {
  std::setlocale(LC_CTYPE, "");
  status_options options;
  if (!parse_status_options(argc, argv, options)) {
    return status_usage_error;
  }
  switch (options.mode) {
  case status_mode::help:
    std::fputs(status_usage, stdout);
    return EXIT_SUCCESS;
  case status_mode::version:
    std::puts("tarnwick-status " TARNWICK_VERSION);
    return EXIT_SUCCESS;
  case status_mode::watch:
    return watch(options);
  case status_mode::once:
  case status_mode::json:
    return show_once(options);
  }
  return status_usage_error;
}

#include "status/check.h"
#include "status/clock.h"
#include "status/json_report.h"
#include "status/lines.h"
#include "status/options.h"
#include "status/printable.h"
#include "status/prometheus_report.h"
#include "status/report.h"
#include "status/round.h"
#include "status/screen.h"
#include "status/terminal.h"

#include <cerrno>
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

void say_problem(const text &problem) {
  text shown;
  add_printable(shown, text_of(problem), measure_screen(false).is_utf8);
  std::fprintf(stderr, "tarnwick-status: %s\n", text_of(shown));
  free_rows(shown);
}

// The page of the newest snapshot, for a person or as JSON.
void add_snapshot(text &output, const status_options &options, const snapshot &snapshot) {
  if (options.is_json) {
    add_json(output, snapshot);
    return;
  }
  const screen screen = measure_screen(false);
  page page;
  add_report(page, snapshot, screen.is_utf8, screen.table_columns);
  add_page(output, screen, page);
  free_page(page);
}

int show_once(const status_options &options) {
  static status_round round;
  text problem;
  bool is_shown = find_daemon(round, problem, options.daemon) && take_sample(round, problem);
  if (is_shown) {
    wait_seconds(once_sample_seconds);
    is_shown = take_snapshot(round, problem);
  }
  text output;
  if (is_shown) {
    add_snapshot(output, options, round.joined);
    is_shown = write_out(output);
  } else {
    say_problem(problem);
  }
  free_rows(output);
  free_rows(problem);
  return is_shown ? EXIT_SUCCESS : status_failed;
}

bool write_metrics(const text &metrics, const char *file, text &problem) {
  if (file == nullptr) {
    return write_out(metrics);
  }
  const bool is_written = replace_file(file, metrics);
  if (!is_written) {
    add_text(problem, "cannot write %s: %s", file, std::strerror(errno));
  }
  return is_written;
}

// Whole or not at all: nothing is written before everything is known.
int show_metrics(const status_options &options) {
  static status_round round;
  text problem;
  text metrics;
  bool is_shown = find_daemon(round, problem, options.daemon) && take_snapshot(round, problem);
  if (is_shown) {
    add_metrics(metrics, round.joined);
    is_shown = write_metrics(metrics, options.metrics_file, problem);
  }
  if (problem.count > 0) {
    say_problem(problem);
  }
  free_rows(metrics);
  free_rows(problem);
  return is_shown ? EXIT_SUCCESS : status_failed;
}

// A round that fails is the page in place of the table; the next one tries again. Without `is_new` the page is made
// again for a window of another size, without asking the daemon.
void build_watched_page(page &page, text &problem, status_round &round, const status_options &options,
                        const screen &screen, bool is_new) {
  if (is_new) {
    clear_rows(problem);
    if (!find_daemon(round, problem, options.daemon) || !take_snapshot(round, problem)) {
      add_text(problem, "\n");
    }
  }
  clear_page(page);
  if (problem.count == 0) {
    add_report(page, round.joined, screen.is_utf8, screen.table_columns);
    return;
  }
  line_buffer line;
  for (const char *place = text_of(problem); next_line(line, place);) {
    add_paragraph(page, line_style::warning, line.data(), screen.table_columns);
  }
}

bool write_check(const check_list &list, bool is_json) {
  text output;
  if (is_json) {
    add_check_json(output, list);
  } else {
    page page;
    add_check_page(page, list);
    add_page(output, measure_screen(false), page);
    free_page(page);
  }
  const bool is_written = write_out(output);
  free_rows(output);
  return is_written;
}

// With --wait the first list is shown at once, and another one when its verdict differs.
int check(const status_options &options) {
  static status_round round;
  std::array<check_list, 2> lists{};
  std::signal(SIGINT, stop_watching);
  std::signal(SIGTERM, stop_watching);
  run_check(lists[0], round, options);
  bool is_written = write_check(lists[0], options.is_json);
  int status = check_status(lists[0]);
  if (options.waits && is_written) {
    do {
      wait_seconds(DEFAULT_WATCH_SECONDS);
      run_check(lists[1], round, options);
    } while (IsRunning == 1 && is_same_verdict(lists[0], lists[1]));
    is_written = IsRunning == 0 || write_check(lists[1], options.is_json);
    status = check_status(lists[1]);
  }
  for (check_list &list : lists) {
    free_checks(list);
  }
  return is_written ? status : status_failed;
}

bool write_page(text &output, const page &page, const screen &screen) {
  clear_rows(output);
  if (screen.is_terminal) {
    add_redrawn_page(output, screen, page);
  } else {
    add_page(output, screen, page);
    add_text(output, "\n");
  }
  return write_out(output);
}

// After a key that means nothing the wait begins again; a resize draws the newest page again.
bool wait_for_next_look(page &page, text &problem, text &output, status_round &round, const status_options &options) {
  constexpr std::int64_t milliseconds_per_second = 1000;
  const std::int64_t next = monotonic_milliseconds() + options.watch_seconds * milliseconds_per_second;
  bool is_written = true;
  for (std::int64_t left = next - monotonic_milliseconds(); left > 0 && is_written;
       left = next - monotonic_milliseconds()) {
    const watch_event event = wait_for_watch_event(static_cast<int>(left));
    if (event == watch_event::end) {
      break;
    }
    if (event == watch_event::redraw) {
      const screen screen = measure_screen(true);
      build_watched_page(page, problem, round, options, screen, false);
      is_written = write_page(output, page, screen);
    }
  }
  return is_written;
}

int watch(const status_options &options) {
  static status_round round;
  page page;
  text output;
  text problem;
  bool is_written = true;
  begin_watching();
  while (is_watching() && is_written) {
    const screen screen = measure_screen(true);
    build_watched_page(page, problem, round, options, screen, true);
    if (is_watching()) {
      is_written = write_page(output, page, screen) && wait_for_next_look(page, problem, output, round, options);
    }
  }
  end_watching();
  free_page(page);
  free_rows(output);
  free_rows(problem);
  return is_written ? EXIT_SUCCESS : status_failed;
}

} // namespace

int main(int argc, char **argv) {
  std::setlocale(LC_CTYPE, "");
  status_options options;
  if (!parse_status_options(options, argc, argv)) {
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
  case status_mode::prometheus:
    return show_metrics(options);
  case status_mode::check:
    return check(options);
  case status_mode::once:
    return show_once(options);
  }
  return status_usage_error;
}

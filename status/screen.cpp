#include "status/screen.h"

#include "status/printable.h"

#include <cerrno>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// ECMA-48 control sequences.
constexpr char style_off[] = "\033[0m";
constexpr char wipe_to_line_end[] = "\033[K";
constexpr char wipe_to_page_end[] = "\033[J";
constexpr char go_home[] = "\033[H";
constexpr char open_window[] = "\033[?1049h\033[?25l";
constexpr char close_window[] = "\033[?25h\033[?1049l";

const char *style_on(line_style style) {
  switch (style) {
  case line_style::plain:
    return "";
  case line_style::heading:
    return "\033[1m";
  case line_style::faint:
    return "\033[2m";
  case line_style::warning:
    return "\033[33m";
  }
  return "";
}

void add_styled(text &output, const screen &screen, line_style style, const char *line) {
  const std::size_t bytes = screen.columns > 0 ? bytes_of_columns(line, screen.columns) : std::strlen(line);
  const bool is_styled = screen.has_colour && style != line_style::plain;
  add_text(output, "%s", is_styled ? style_on(style) : "");
  text shown;
  add_bytes(shown, line, bytes);
  add_printable(output, text_of(shown), screen.is_utf8);
  free_rows(shown);
  add_text(output, "%s", is_styled ? style_off : "");
}

void add_lines(text &output, const screen &screen, const page &page, const char *line_end) {
  const bool is_cut = screen.rows > 0 && page.lines.count > screen.rows;
  const std::size_t whole = is_cut ? screen.rows - 1 : page.lines.count;
  for (std::size_t i = 0; i < whole; ++i) {
    const page_line &line = page.lines.first[i];
    add_styled(output, screen, line.style, line_text(page, line));
    add_text(output, "%s", i + 1 < whole || is_cut || screen.rows == 0 ? line_end : "");
  }
  if (is_cut) {
    text rest;
    add_text(rest, "... and %zu more lines", page.lines.count - whole);
    add_styled(output, screen, line_style::faint, text_of(rest));
    free_rows(rest);
  }
}

} // namespace

screen measure_screen(bool is_redrawn) {
  screen measured{};
  measured.is_terminal = isatty(STDOUT_FILENO) == 1;
  measured.has_colour = measured.is_terminal && std::getenv("NO_COLOR") == nullptr;
  measured.is_utf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  winsize window{};
  if (measured.is_terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0) {
    measured.rows = is_redrawn ? window.ws_row : 0;
    measured.columns = is_redrawn ? window.ws_col : 0;
    measured.table_columns = window.ws_col;
  }
  return measured;
}

void add_page(text &output, const screen &screen, const page &page) { add_lines(output, screen, page, "\n"); }

void add_redrawn_page(text &output, const screen &screen, const page &page) {
  text line_end;
  add_text(line_end, "%s\n", wipe_to_line_end);
  add_text(output, "%s", go_home);
  add_lines(output, screen, page, text_of(line_end));
  add_text(output, "%s%s", wipe_to_line_end, wipe_to_page_end);
  free_rows(line_end);
}

void start_redrawing(const screen &screen) {
  text sequence;
  add_text(sequence, "%s", screen.is_terminal ? open_window : "");
  write_out(sequence);
  free_rows(sequence);
}

void end_redrawing(const screen &screen) {
  text sequence;
  add_text(sequence, "%s", screen.is_terminal ? close_window : "");
  write_out(sequence);
  free_rows(sequence);
}

bool write_out(const text &content) {
  std::size_t done = 0;
  while (done < content.count) {
    const ssize_t written = write(STDOUT_FILENO, content.first + done, content.count - done);
    if (written < 0 && errno != EINTR) {
      return false;
    }
    done += written > 0 ? static_cast<std::size_t>(written) : 0;
  }
  return true;
}

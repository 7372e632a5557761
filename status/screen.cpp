#include "status/screen.h"

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

void add_styled(const screen &onto, line_style style, const char *line, text &to) {
  const std::size_t bytes = onto.columns > 0 ? bytes_of_columns(line, onto.columns) : std::strlen(line);
  const bool is_styled = onto.has_colour && style != line_style::plain;
  add_text(to, "%s", is_styled ? style_on(style) : "");
  add_bytes(to, line, bytes);
  add_text(to, "%s", is_styled ? style_off : "");
}

void add_lines(const screen &onto, const page &shown, const char *line_end, text &to) {
  const bool is_cut = onto.rows > 0 && shown.lines.count > onto.rows;
  const std::size_t whole = is_cut ? onto.rows - 1 : shown.lines.count;
  for (std::size_t i = 0; i < whole; ++i) {
    const page_line &line = shown.lines.first[i];
    add_styled(onto, line.style, line_text(shown, line), to);
    add_text(to, "%s", i + 1 < whole || is_cut || onto.rows == 0 ? line_end : "");
  }
  if (is_cut) {
    text rest;
    add_text(rest, "... and %zu more lines", shown.lines.count - whole);
    add_styled(onto, line_style::faint, text_of(rest), to);
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
  if (measured.is_terminal && is_redrawn && ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0) {
    measured.rows = window.ws_row;
    measured.columns = window.ws_col;
  }
  return measured;
}

void add_page(const screen &onto, const page &shown, text &to) { add_lines(onto, shown, "\n", to); }

void add_redrawn_page(const screen &onto, const page &shown, text &to) {
  text line_end;
  add_text(line_end, "%s\n", wipe_to_line_end);
  add_text(to, "%s", go_home);
  add_lines(onto, shown, text_of(line_end), to);
  add_text(to, "%s%s", wipe_to_line_end, wipe_to_page_end);
  free_rows(line_end);
}

void start_redrawing(const screen &onto) {
  text sequence;
  add_text(sequence, "%s", onto.is_terminal ? open_window : "");
  write_out(sequence);
  free_rows(sequence);
}

void end_redrawing(const screen &onto) {
  text sequence;
  add_text(sequence, "%s", onto.is_terminal ? close_window : "");
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

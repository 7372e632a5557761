#include "run/log_line.h"

namespace {

// Level, tag and function stand in columns of these widths (core/log.cpp); a longer name moves what follows.
constexpr std::size_t module_at = 2;
constexpr std::size_t function_at = 7;
constexpr std::size_t line_number_at = 43;

bool has_columns(std::string_view line) {
  const bool has_level = line[0] == 'E' || line[0] == 'D' || line[0] == 'I';
  return has_level && line[module_at - 1] == ':' && line[function_at - 1] == ':';
}

} // namespace

log_line_parts take_log_line_apart(std::string_view line) {
  if (line.size() <= line_number_at || !has_columns(line)) {
    return {'\0', line};
  }
  const std::size_t number = line.find('#', line_number_at);
  const std::size_t end = number == std::string_view::npos ? number : line.find(": ", number);
  if (end == std::string_view::npos) {
    return {'\0', line};
  }
  const char level = line[0];
  line.remove_prefix(end + 2);
  return {level, line};
}

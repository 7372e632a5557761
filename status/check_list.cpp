#include "status/check_list.h"

#include "status/json_text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

const char *result_text(check_result result) {
  switch (result) {
  case check_result::ok:
    return "ok";
  case check_result::no:
    return "NO";
  case check_result::unknown:
    return "unknown";
  }
  return "";
}

const char *json_result(check_result result) { return result == check_result::no ? "no" : result_text(result); }

std::size_t count_unknown(const check_list &list) {
  const std::span<check_step> steps = all_rows(list.steps);
  return static_cast<std::size_t>(std::count_if(
      steps.begin(), steps.end(), [](const check_step &step) { return step.result == check_result::unknown; }));
}

line_style style_of(check_result result) {
  switch (result) {
  case check_result::ok:
    return line_style::plain;
  case check_result::no:
    return line_style::warning;
  case check_result::unknown:
    return line_style::faint;
  }
  return line_style::plain;
}

// Returns where the text begins.
std::size_t add_terminated(text &bytes, const char *format, va_list arguments) {
  const std::size_t offset = bytes.count;
  add_text_list(bytes, format, arguments);
  add_bytes(bytes, "", 1);
  return offset;
}

void add_step_lines(page &page, const check_list &list, const check_step &step) {
  text line;
  add_text(line, "%-7s  %-9s  %s", result_text(step.result), step.place, finding_of(list, step));
  add_line(page, style_of(step.result), text_of(line));
  if (step.cure != NO_CURE) {
    clear_rows(line);
    add_text(line, "%-7s  %-9s  # %s", "", "", cure_of(list, step));
    add_line(page, style_of(step.result), text_of(line));
  }
  free_rows(line);
}

void add_step_json(text &json, const check_list &list, const check_step &step) {
  add_text(json, "{\"result\":\"%s\",\"place\":", json_result(step.result));
  add_json_text(json, step.place);
  add_text(json, ",\"finding\":");
  add_json_text(json, finding_of(list, step));
  if (step.cure != NO_CURE) {
    add_text(json, ",\"cure\":");
    add_json_text(json, cure_of(list, step));
  }
  add_text(json, "}");
}

void add_no_verdict_line(page &page, const check_list &list) {
  const std::size_t unknown = count_unknown(list);
  text line;
  add_text(line, "%s: nothing was found that stops a stream", result_text(result_of(list)));
  if (unknown > 0) {
    add_text(line, ", but %zu of %zu steps could not be looked at", unknown, list.steps.count);
  }
  add_line(page, line_style::plain, text_of(line));
  free_rows(line);
}

} // namespace

void clear_checks(check_list &list) {
  clear_rows(list.bytes);
  clear_rows(list.steps);
}

void free_checks(check_list &list) {
  free_rows(list.bytes);
  free_rows(list.steps);
}

void add_check(check_list &list, check_result result, const char *place, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::size_t finding = add_terminated(list.bytes, format, arguments);
  va_end(arguments);
  add_row(list.steps, check_step{result, place, format, finding, NO_CURE});
}

void add_cure(check_list &list, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::size_t cure = add_terminated(list.bytes, format, arguments);
  va_end(arguments);
  list.steps.first[list.steps.count - 1].cure = cure;
}

const char *finding_of(const check_list &list, const check_step &step) { return list.bytes.first + step.finding; }

const char *cure_of(const check_list &list, const check_step &step) {
  return step.cure == NO_CURE ? "" : list.bytes.first + step.cure;
}

const check_step *verdict_of(const check_list &list) {
  for (const check_step &step : all_rows(list.steps)) {
    if (step.result == check_result::no) {
      return &step;
    }
  }
  return nullptr;
}

check_result result_of(const check_list &list) {
  if (verdict_of(list) != nullptr) {
    return check_result::no;
  }
  return count_unknown(list) > 0 ? check_result::unknown : check_result::ok;
}

bool is_same_verdict(const check_list &left, const check_list &right) {
  const check_step *left_verdict = verdict_of(left);
  const check_step *right_verdict = verdict_of(right);
  if (left_verdict == nullptr || right_verdict == nullptr) {
    return left_verdict == right_verdict;
  }
  return std::strcmp(left_verdict->place, right_verdict->place) == 0 &&
         std::strcmp(left_verdict->format, right_verdict->format) == 0 &&
         std::strcmp(cure_of(left, *left_verdict), cure_of(right, *right_verdict)) == 0;
}

void add_check_page(page &page, const check_list &list) {
  for (const check_step &step : all_rows(list.steps)) {
    add_step_lines(page, list, step);
  }
  const check_step *verdict = verdict_of(list);
  add_line(page, line_style::plain, "");
  if (verdict == nullptr) {
    add_no_verdict_line(page, list);
    return;
  }
  text line;
  add_text(line, "NO: %s", finding_of(list, *verdict));
  if (verdict->cure != NO_CURE) {
    add_text(line, " # %s", cure_of(list, *verdict));
  }
  add_line(page, line_style::warning, text_of(line));
  free_rows(line);
}

void add_check_json(text &json, const check_list &list) {
  const check_step *verdict = verdict_of(list);
  add_text(json, "{\"result\":\"%s\",\"steps\":[", json_result(result_of(list)));
  for (std::size_t i = 0; i < list.steps.count; ++i) {
    add_text(json, "%s", i > 0 ? "," : "");
    add_step_json(json, list, list.steps.first[i]);
  }
  add_text(json, "],\"verdict\":");
  if (verdict == nullptr) {
    add_text(json, "null}\n");
    return;
  }
  add_step_json(json, list, *verdict);
  add_text(json, "}\n");
}

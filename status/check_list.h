// What a check found, step by step along a stream's path.
#pragma once

#include "status/page.h"

#include <cstdint>

enum class check_result {
  ok,
  no,     // the stream cannot pass here
  unknown // could not look: no permission, no tool, or nothing to look at
};

struct check_step {
  check_result result;
  const char *place;   // where on the path; a constant, for programs too
  const char *format;  // of the finding: the same for all figures
  std::size_t finding; // offset into `bytes`
  std::size_t cure;    // offset into `bytes`; NO_CURE
};

inline constexpr std::size_t NO_CURE = SIZE_MAX;

struct check_list {
  text bytes;
  rows_of<check_step> steps;
};

void clear_checks(check_list &list);
void free_checks(check_list &list);

// printf's format. The finding is one line that ends with the figure it rests on.
void add_check(check_list &list, check_result result, const char *place, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// The cure of the step that was added last: a command ready to paste.
void add_cure(check_list &list, const char *format, ...) __attribute__((format(printf, 2, 3)));

const char *finding_of(const check_list &list, const check_step &step);

// "" where there is none.
const char *cure_of(const check_list &list, const check_step &step);

// The first step that says NO; null if none does.
const check_step *verdict_of(const check_list &list);

// Of the whole: `unknown` where no step says NO and one could not look.
check_result result_of(const check_list &list);

// Whether two lists come to the same verdict: the same first NO with the same cure, whatever its figures, or none in
// both.
bool is_same_verdict(const check_list &left, const check_list &right);

// A line for each step, the cure below it, and the verdict as the last line.
void add_check_page(page &page, const check_list &list);

// One JSON object on one line.
void add_check_json(text &json, const check_list &list);

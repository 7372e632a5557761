#include "bench/figure.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace {

const char *judged_name(judged what) {
  switch (what) {
  case judged::ratio:
    return "ratio";
  case judged::value:
    return "value";
  default:
    return "nothing";
  }
}

std::int64_t read_clock(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

} // namespace

void print_figure(const std::string &topic, const figure_subject &subject, const std::string &unit, double value,
                  double floor, goal to_reach) {
  std::fprintf(stderr, "figure|%s|%s|%s|%u|%s|%.6g|%.6g|%s|%.6g\n", topic.c_str(), subject.kind.c_str(),
               subject.variant.c_str(), subject.groups, unit.c_str(), value, floor, judged_name(to_reach.what),
               to_reach.limit);
}

void print_figure(const std::string &topic, const std::string &kind, const std::string &unit, double value,
                  double floor, goal to_reach) {
  print_figure(topic, figure_subject{kind}, unit, value, floor, to_reach);
}

void print_note(const std::string &topic, const std::string &text) {
  std::fprintf(stderr, "note|%s|%s\n", topic.c_str(), text.c_str());
}

double median(std::vector<double> values) { return percentile(std::move(values), 50); }

double percentile(std::vector<double> values, double percent) {
  if (values.empty()) {
    return std::nan("");
  }
  std::sort(values.begin(), values.end());
  const double place = percent / 100 * static_cast<double>(values.size() - 1);
  const auto lower = static_cast<std::size_t>(place);
  const std::size_t upper = std::min(lower + 1, values.size() - 1);
  return values[lower] + (place - static_cast<double>(lower)) * (values[upper] - values[lower]);
}

std::int64_t now_ns() { return read_clock(CLOCK_MONOTONIC); }

std::int64_t thread_cpu_ns() { return read_clock(CLOCK_THREAD_CPUTIME_ID); }

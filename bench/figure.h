// What a benchmark prints: one figure per line, which bench/write_report.py judges and lays out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class judged { ratio, value, nothing }; // what the goal is about

struct goal {
  judged what;
  double limit; // at most
};

inline constexpr goal no_goal{judged::nothing, 0};

// What a figure is about. Its name in the tables is made of the parts that are given.
struct figure_subject {
  std::string kind;
  std::string variant = ""; // empty: there is only one
  unsigned groups = 0;      // that the proxy has beside the one measured; 0: they do not matter
};

// Prints "figure|topic|kind|variant|groups|unit|value|floor|judged|limit" on standard error (standard output is the
// log under measurement). Floor 0: there is none.
void print_figure(const std::string &topic, const figure_subject &subject, const std::string &unit, double value,
                  double floor, goal to_reach);

// The same for a figure that needs no more than its kind as a name.
void print_figure(const std::string &topic, const std::string &kind, const std::string &unit, double value,
                  double floor, goal to_reach);

// Prints a line of explanation that the report puts under the topic's table.
void print_note(const std::string &topic, const std::string &text);

double median(std::vector<double> values);
double percentile(std::vector<double> values, double percent);

std::int64_t now_ns();        // CLOCK_MONOTONIC
std::int64_t thread_cpu_ns(); // CLOCK_THREAD_CPUTIME_ID

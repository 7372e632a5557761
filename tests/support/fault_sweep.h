// Every request of a scenario fails once alone, and once together with all that follow.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace scripted {

struct sweep_scenario {
  std::string name;
  // Plays the scenario on a fresh proxy with the failure armed, checks what must hold, and stops the proxy cleanly
  // with the failure gone. Returns a complaint, or an empty text.
  std::function<std::string(const std::function<void()> &arm)> play;
};

// The scenario is over: from here on nothing fails.
void disarm();

struct sweep_result {
  int requests; // of the scenario when nothing fails
  int failures; // injected
};

// Plays the scenario once for each of its requests and each error that the kernel can give there.
sweep_result sweep(const sweep_scenario &scenario);

// Sweeps one after the other, prints "N scenarios, M failures injected", and returns M.
int sweep_all(const std::vector<sweep_scenario> &scenarios);

} // namespace scripted

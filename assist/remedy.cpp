#include "assist/remedy.h"

#include <algorithm>

namespace {

remedies_off chosen_off{};

} // namespace

bool switch_off(std::string_view name, remedies_off &chosen) {
  const auto found = std::ranges::find(REMEDY_NAMES, name);
  if (found == REMEDY_NAMES.end()) {
    return false;
  }
  chosen[static_cast<std::size_t>(found - REMEDY_NAMES.begin())] = true;
  return true;
}

void choose_remedies(const remedies_off &chosen) { chosen_off = chosen; }

bool is_on(remedy asked) { return !chosen_off[static_cast<std::size_t>(asked)]; }

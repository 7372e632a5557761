// Which lines of the daemon's log matter to an operator. docs/log.md shows what --log=info passes on.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

inline constexpr std::size_t LONGEST_HELD_LINE = 128; // what is longer is held cut

// Who reported what: lines of every packet, passed on only in front of one that says what came of it.
struct held_log_line {
  std::array<char, LONGEST_HELD_LINE> text;
  std::size_t length; // 0 = none
};

struct log_filter {
  held_log_line host;
  held_log_line group;
  bool is_refresh; // the daemon drops the group and makes it anew, as it does for every repeated any-source report
};

// Looks at one line of level D or I and what it says. Returns whether to pass it on, behind what `filter` holds.
bool is_for_operator(log_filter &filter, std::string_view line, std::string_view message);

// What stands in front of the line that is passed on now; nothing the second time.
std::string_view take_held_log_line(held_log_line &held);

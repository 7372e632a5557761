#include "status/number_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr double step = 1000.0; // decimal units, as traffic is counted
constexpr std::array<const char *, 6> prefixes{"", "k", "M", "G", "T", "P"};

// Three digits and a prefix; whole numbers below the first prefix.
number_text scaled_text(double value, const char *unit) {
  std::size_t prefix = 0;
  constexpr double rounds_up_to_step = 999.5;
  while (value >= rounds_up_to_step && prefix + 1 < prefixes.size()) {
    value /= step;
    ++prefix;
  }
  constexpr double two_digits = 99.95;
  constexpr double one_digit = 9.995;
  const int decimals = prefix == 0 || value >= two_digits ? 0 : value >= one_digit ? 1 : 2;
  number_text written;
  std::snprintf(written.data(), written.size(), "%.*f %s%s", decimals, value, prefixes[prefix], unit);
  return written;
}

// Rounded up, so that the slowest stream shows, too.
int parts_of(double share, int parts) {
  const double exact = std::clamp(share, 0.0, 1.0) * parts;
  const int whole = static_cast<int>(exact);
  return exact > whole ? whole + 1 : whole;
}

} // namespace

number_text bytes_text(std::uint64_t bytes) { return scaled_text(static_cast<double>(bytes), "B"); }

number_text rate_text(double bits_per_second) { return scaled_text(bits_per_second, "bit/s"); }

number_text duration_text(long seconds) {
  constexpr long minute = 60;
  constexpr long hour = 60 * minute;
  constexpr long day = 24 * hour;
  number_text written;
  if (seconds < minute) {
    std::snprintf(written.data(), written.size(), "%ld s", seconds);
  } else if (seconds < hour) {
    std::snprintf(written.data(), written.size(), "%ld min %ld s", seconds / minute, seconds % minute);
  } else if (seconds < day) {
    std::snprintf(written.data(), written.size(), "%ld h %ld min", seconds / hour, seconds % hour / minute);
  } else {
    std::snprintf(written.data(), written.size(), "%ld d %ld h", seconds / day, seconds % day / hour);
  }
  return written;
}

bar_text bar_of(double share, bool is_utf8) {
  constexpr int columns = 8;
  constexpr int eighths_per_column = 8;
  static constexpr std::array<const char *, 9> blocks{"", "▏", "▎", "▍", "▌", "▋", "▊", "▉", "█"};
  bar_text bar{};
  if (!is_utf8) {
    std::memset(bar.data(), '#', static_cast<std::size_t>(parts_of(share, columns)));
    return bar;
  }
  int eighths = parts_of(share, columns * eighths_per_column);
  std::size_t used = 0;
  for (; eighths > 0; eighths -= eighths_per_column) {
    const char *block = blocks[static_cast<std::size_t>(std::min(eighths, eighths_per_column))];
    std::memcpy(bar.data() + used, block, std::strlen(block));
    used += std::strlen(block);
  }
  return bar;
}

// A part of a text, without the C++ library.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

// The first `count` characters of `text`, or all of it if there are fewer. substr() may throw: built for size, a
// program that calls it needs the C++ library.
constexpr std::string_view first_part(std::string_view text, std::size_t count) {
  return {text.data(), std::min(count, text.size())};
}

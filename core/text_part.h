// A part of a text, without the C++ library.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

// The first `count` characters of `whole`, or all of it if there are fewer. substr() may throw: built for size, a
// program that calls it needs the C++ library.
constexpr std::string_view first_part(std::string_view whole, std::size_t count) {
  return {whole.data(), std::min(count, whole.size())};
}

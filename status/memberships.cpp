#include "status/memberships.h"

#include "status/lines.h"

#include <arpa/inet.h>
#include <cinttypes>
#include <cstdio>

namespace {

using hex_address = std::array<char, 2 * sizeof(in6_addr) + 1>;
static_assert(sizeof(hex_address) == 33, "the widths in the formats below");

// 32 digits without colons.
bool to_address(group_text &address, const hex_address &digits) {
  in6_addr bytes{};
  for (std::size_t i = 0; i < sizeof(bytes.s6_addr); ++i) {
    unsigned byte = 0;
    if (std::sscanf(digits.data() + 2 * i, "%2x", &byte) != 1) {
      return false;
    }
    bytes.s6_addr[i] = static_cast<std::uint8_t>(byte);
  }
  return std::strlen(digits.data()) == digits.size() - 1 &&
         inet_ntop(AF_INET6, &bytes, address.data(), INET6_ADDRSTRLEN) != nullptr;
}

} // namespace

void parse_memberships(rows_of<membership_row> &memberships, const char *table) {
  line_buffer line;
  while (next_line(line, table)) {
    constexpr int items = 3;
    membership_row read{};
    hex_address group{};
    if (std::sscanf(line.data(), "%" SCNu32 " %*s %32[0-9a-f] %" SCNu32, &read.interface, group.data(), &read.users) ==
            items &&
        to_address(read.group, group)) {
      add_row(memberships, read);
    }
  }
}

void parse_group_sources(rows_of<group_source_row> &sources, const char *table) {
  line_buffer line;
  while (next_line(line, table)) {
    constexpr int items = 5;
    group_source_row read{};
    hex_address group{};
    hex_address source{};
    if (std::sscanf(line.data(), "%" SCNu32 " %*s %32[0-9a-f] %32[0-9a-f] %" SCNu32 " %" SCNu32, &read.interface,
                    group.data(), source.data(), &read.included, &read.excluded) == items &&
        to_address(read.group, group) && to_address(read.source, source)) {
      add_row(sources, read);
    }
  }
}

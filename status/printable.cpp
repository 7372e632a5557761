#include "status/printable.h"

#include "status/json_text.h"

namespace {

// Bytes of the printable character that begins here; 0 if none does.
std::size_t printable_length(const char *bytes, bool is_utf8) {
  constexpr unsigned char first_printable = 0x20;
  constexpr unsigned char last_printable = 0x7e;
  constexpr unsigned char c1_lead = 0xc2; // U+0080 to U+009F are c2 80 to c2 9f
  constexpr unsigned char c1_last = 0x9f;
  const auto first = static_cast<unsigned char>(bytes[0]);
  if (first <= last_printable) {
    return first >= first_printable || first == '\n' ? 1 : 0;
  }
  const bool is_c1 = first == c1_lead && static_cast<unsigned char>(bytes[1]) <= c1_last;
  return is_utf8 && !is_c1 ? utf8_length(bytes) : 0;
}

} // namespace

void add_printable(text &built, const char *bytes, bool is_utf8) {
  while (*bytes != '\0') {
    const std::size_t length = printable_length(bytes, is_utf8);
    add_bytes(built, length > 0 ? bytes : "?", length > 0 ? length : 1);
    bytes += length > 0 ? length : 1;
  }
}

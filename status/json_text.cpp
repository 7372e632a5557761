#include "status/json_text.h"

#include <cstdint>

namespace {

constexpr char replacement_character[] = "\xef\xbf\xbd"; // U+FFFD

struct utf8_form {
  unsigned char mask; // which bits of the first byte give the length
  unsigned char lead;
  std::size_t length;
  std::uint32_t smallest; // what a shorter form could not hold
};

constexpr utf8_form utf8_forms[] = {{0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

bool is_code_point(std::uint32_t value, std::uint32_t smallest) {
  constexpr std::uint32_t largest = 0x10ffff;
  const bool is_surrogate = value >= 0xd800 && value <= 0xdfff;
  return value >= smallest && value <= largest && !is_surrogate;
}

} // namespace

std::size_t utf8_length(const char *bytes) {
  constexpr unsigned continuation_bits = 6;
  constexpr unsigned char continuation_mask = 0x3f;
  const auto first = static_cast<unsigned char>(bytes[0]);
  for (const utf8_form &form : utf8_forms) {
    if ((first & form.mask) != form.lead) {
      continue;
    }
    std::uint32_t value = first & static_cast<unsigned char>(~form.mask);
    for (std::size_t i = 1; i < form.length; ++i) {
      const auto next = static_cast<unsigned char>(bytes[i]);
      if ((next & static_cast<unsigned char>(~continuation_mask)) != 0x80) {
        return 0;
      }
      value = value << continuation_bits | (next & continuation_mask);
    }
    return is_code_point(value, form.smallest) ? form.length : 0;
  }
  return 0;
}

void add_json_text(text &json, const char *bytes) {
  constexpr unsigned char first_printable = 0x20;
  constexpr unsigned char last_ascii = 0x7e;
  add_bytes(json, "\"", 1);
  while (*bytes != '\0') {
    const auto byte = static_cast<unsigned char>(*bytes);
    if (byte == '"' || byte == '\\') {
      add_text(json, "\\%c", byte);
      ++bytes;
    } else if (byte < first_printable || byte == last_ascii + 1) {
      add_text(json, "\\u%04x", byte);
      ++bytes;
    } else if (byte <= last_ascii) {
      add_bytes(json, bytes++, 1);
    } else if (const std::size_t length = utf8_length(bytes); length > 0) {
      add_bytes(json, bytes, length);
      bytes += length;
    } else {
      add_text(json, "%s", replacement_character);
      ++bytes;
    }
  }
  add_bytes(json, "\"", 1);
}

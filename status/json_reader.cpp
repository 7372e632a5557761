#include "status/json_reader.h"

namespace {

constexpr int deepest = 64;

bool parse_value(json_document &document, const char *&place, int depth);

void skip_blanks(const char *&place) { place += std::strspn(place, " \t\r\n"); }

std::uint32_t offset_of(const json_document &document, const char *place) {
  return static_cast<std::uint32_t>(place - document.bytes);
}

// Returns the new value's index.
std::size_t begin_value(json_document &document, json_kind kind, const char *place) {
  add_row(document.values, json_value{kind, offset_of(document, place), 0, 0});
  return document.values.count - 1;
}

void end_value(json_document &document, std::size_t index, const char *place) {
  json_value &value = document.values.first[index];
  value.length = offset_of(document, place) - value.offset;
  value.next = static_cast<std::uint32_t>(document.values.count);
}

bool parse_string(json_document &document, const char *&place) {
  const std::size_t index = begin_value(document, json_kind::string, ++place);
  while (*place != '"') {
    if (*place == '\0') {
      return false;
    }
    place += place[0] == '\\' && place[1] != '\0' ? 2 : 1;
  }
  end_value(document, index, place++);
  return true;
}

bool parse_other(json_document &document, const char *&place) {
  const std::size_t index = begin_value(document, json_kind::other, place);
  const std::size_t length = std::strspn(place, "+-.0123456789abcdefghijklmnopqrstuvwxyzE");
  place += length;
  end_value(document, index, place);
  return length > 0;
}

// What precedes each element of an object: a string and a colon.
bool parse_key(json_document &document, const char *&place) {
  if (*place != '"' || !parse_string(document, place)) {
    return false;
  }
  skip_blanks(place);
  return *place++ == ':';
}

bool parse_container(json_document &document, const char *&place, char end, int depth) {
  const json_kind kind = end == '}' ? json_kind::object : json_kind::array;
  const std::size_t index = begin_value(document, kind, place++);
  skip_blanks(place);
  while (*place != end) {
    if ((kind == json_kind::object && !parse_key(document, place)) || !parse_value(document, place, depth + 1)) {
      return false;
    }
    skip_blanks(place);
    if (*place == ',') {
      ++place;
      skip_blanks(place);
    } else if (*place != end) {
      return false;
    }
  }
  end_value(document, index, ++place);
  return true;
}

bool parse_value(json_document &document, const char *&place, int depth) {
  if (depth > deepest) {
    return false;
  }
  skip_blanks(place);
  switch (*place) {
  case '{':
    return parse_container(document, place, '}', depth);
  case '[':
    return parse_container(document, place, ']', depth);
  case '"':
    return parse_string(document, place);
  default:
    return parse_other(document, place);
  }
}

} // namespace

bool parse_json(json_document &document, const char *bytes) {
  document.bytes = bytes;
  clear_rows(document.values);
  const char *place = bytes;
  if (std::strlen(bytes) >= UINT32_MAX || !parse_value(document, place, 0)) {
    clear_rows(document.values);
    return false;
  }
  skip_blanks(place);
  return *place == '\0';
}

bool is_kind(const json_document &document, std::uint32_t value, json_kind kind) {
  return value < document.values.count && document.values.first[value].kind == kind;
}

std::string_view text_in(const json_document &document, std::uint32_t value) {
  if (!is_kind(document, value, json_kind::string) && !is_kind(document, value, json_kind::other)) {
    return {};
  }
  const json_value &found = document.values.first[value];
  return {document.bytes + found.offset, found.length};
}

std::uint32_t first_in(const json_document &document, std::uint32_t container) {
  if (!is_kind(document, container, json_kind::array) && !is_kind(document, container, json_kind::object)) {
    return NO_VALUE;
  }
  return document.values.first[container].next > container + 1 ? container + 1 : NO_VALUE;
}

std::uint32_t next_in(const json_document &document, std::uint32_t container, std::uint32_t value) {
  const std::uint32_t next = document.values.first[value].next;
  return next < document.values.first[container].next ? next : NO_VALUE;
}

std::uint32_t member_of(const json_document &document, std::uint32_t object, std::string_view key) {
  if (!is_kind(document, object, json_kind::object)) {
    return NO_VALUE;
  }
  for (std::uint32_t name = first_in(document, object); name != NO_VALUE;) {
    const std::uint32_t value = next_in(document, object, name);
    if (text_in(document, name) == key) {
      return value;
    }
    name = next_in(document, object, value);
  }
  return NO_VALUE;
}

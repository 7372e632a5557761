// Reading JSON (RFC 8259) as a flat list of values, in the order of the text.
#pragma once

#include "status/text.h"

#include <cstdint>
#include <string_view>

enum class json_kind { object, array, string, other };

struct json_value {
  json_kind kind;
  std::uint32_t offset; // of a string: after its quote; escapes stay as they are written
  std::uint32_t length;
  std::uint32_t next; // index after this value and everything in it
};

struct json_document {
  const char *bytes; // outlives the document
  rows_of<json_value> values;
};

inline constexpr std::uint32_t NO_VALUE = UINT32_MAX;

// Returns false for what is not one JSON value. Nesting of more than 64 levels is refused.
bool parse_json(json_document &document, const char *bytes);

bool is_kind(const json_document &document, std::uint32_t value, json_kind kind);

// The text of a string or number; "" for others and for NO_VALUE.
std::string_view text_in(const json_document &document, std::uint32_t value);

// The value of an object's key; NO_VALUE if it is not an object or has no such key.
std::uint32_t member_of(const json_document &document, std::uint32_t object, std::string_view key);

// Iterate over an array's elements, or over an object's keys and values in turn: NO_VALUE at the end.
std::uint32_t first_in(const json_document &document, std::uint32_t container);
std::uint32_t next_in(const json_document &document, std::uint32_t container, std::uint32_t value);

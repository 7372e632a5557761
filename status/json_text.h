// Texts as JSON strings (RFC 8259).
#pragma once

#include "status/text.h"

// Bytes of the character beyond ASCII that begins here; 0 if it is not UTF-8 (RFC 3629).
std::size_t utf8_length(const char *bytes);

// Adds `bytes` in quotes. Control characters are escaped, and what is not UTF-8 becomes U+FFFD: interface names and
// process names may hold any byte.
void add_json_text(text &json, const char *bytes);

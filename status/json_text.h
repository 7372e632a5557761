// Texts as JSON strings (RFC 8259).
#pragma once

#include "status/text.h"

// Adds `bytes` in quotes. Control characters are escaped, and what is not UTF-8 becomes U+FFFD: interface names and
// process names may hold any byte.
void add_json_text(text &json, const char *bytes);

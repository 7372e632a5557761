// Other programs' texts on a terminal: an interface may have any bytes but blanks, '/' and ':' in its name.
#pragma once

#include "status/text.h"

// Adds `bytes` with a '?' for each control character (C0 but for line ends, DEL and C1), and for each byte that is not
// UTF-8. Without `is_utf8` every byte beyond ASCII becomes one.
void add_printable(text &built, const char *bytes, bool is_utf8);

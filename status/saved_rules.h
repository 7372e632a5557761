// What `ip6tables-save -c` prints, in the form in which nft prints its rules, so that one walk follows both.
#pragma once

#include "status/text.h"

inline constexpr char SAVED_FAMILY[] = "ip6tables"; // in the place where nft names a rule's family

// Adds one JSON document. A condition or target that is not known becomes one that is never decided.
void add_saved_rules(text &json, const char *saved);

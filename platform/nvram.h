// What the firmware's libraries give to the daemon. On a host without them, the files beside this header stand in.
#pragma once

extern "C" {

// Text stored under `key`, or null if there is none. The text stays valid; the caller must not free or change it.
char *nvram_get(const char *key);

// Converts "aa:bb:cc:dd:ee:ff" into six bytes. Returns 1, or 0 with `bytes` left alone.
int ether_atoe(const char *text, unsigned char *bytes);
}

// The same where text is needed: an absent key counts as the empty text.
inline const char *nvram_text(const char *key) {
  const char *value = nvram_get(key);
  return value != nullptr ? value : "";
}

// NVRAM for hosts without the firmware's libraries: a text file of key=value lines, '#' comments.
#pragma once

#include <cstddef>

inline constexpr char NVRAM_DEFAULT_PATH[] = "/etc/tarnwick/nvram";
inline constexpr char NVRAM_PATH_VARIABLE[] = "TARNWICK_NVRAM";
inline constexpr std::size_t NVRAM_FILE_LIMIT_BYTES = 65536; // chosen as a bound; what is beyond it is not read

// Forgets what was read, so that the next nvram_get reads the file again. For tests.
void nvram_file_forget();

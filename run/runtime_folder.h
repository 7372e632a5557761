// A folder for each first LAN interface, "/run/tarnwick/br0": a lock, the daemon's settings, the flags to put back,
// what the supervisor does.
#pragma once

#include "run/options.h"

#include <array>
#include <cstddef>

using file_path = std::array<char, 256>;

// The files that a supervisor may leave there.
inline constexpr char NVRAM_NAME[] = "nvram";
inline constexpr char SAVED_FLAGS_NAME[] = "flags";

// Makes the folder and takes its lock. False after it has said why not: another supervisor serves the same interface.
bool open_runtime_folder(const run_options &options);

// Whether the folder could be made. False with errno and the folder that refuses it.
bool can_make_runtime_folder(const run_options &options, file_path &refusing);

// "/run/tarnwick/br0/NAME".
file_path path_in_runtime_folder(const char *name);

// Writes a file as a whole or not at all. False after it has said why not.
bool write_runtime_file(const char *name, const char *content);

// Reads at most `size` - 1 bytes and puts a NUL behind them. False if there is no such file.
bool read_runtime_file(const char *name, char *content, std::size_t size);

void remove_runtime_file(const char *name);

// Removes the folder with everything that a supervisor puts there.
void close_runtime_folder();

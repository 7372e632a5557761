// Pipes for the log under measurement, each with a reader in a process of its own.
#pragma once

#include <cstddef>
#include <cstdio>
#include <sys/types.h>

// Has no effect if there is no processor of that number.
void stay_on_processor(std::size_t number);

// Readers: one that takes what comes; one that does with it what the supervisor does (its sink: a file in memory); and
// one that takes everything for the first in a long time, as the supervisor takes a report that comes alone.
void read_and_drop(int descriptor);
void read_as_deployed(int descriptor);
void read_each_alone(int descriptor);

// A pipe as the daemon makes it of its standard output, and a reader on that processor. `reader`, if not null, becomes
// its process.
FILE *open_pipe_with_reader(std::size_t processor, void (*read_all)(int descriptor) = read_and_drop,
                            pid_t *reader = nullptr);

// Each turn begins with an empty log: a pipe's reader that lags behind would slow it down, or lose it, and a file that
// grows to hundreds of megabytes is not what a router has.
void empty_log(FILE *log);

// On one processor whoever yields lets the other one run until it waits again.
void let_reader_run(FILE *log);

// Programs that a benchmark starts, and what the kernel says about them.
#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

// Starts a program in the namespace that the caller is in; its output goes to `log`, and it ends with the caller.
pid_t start_program(const std::vector<std::string> &command, const char *log = "/dev/null");
void stop_program(pid_t program); // SIGTERM, and waits

// Waits until the kernel has that many multicast interfaces in the namespace that the caller is in.
void wait_for_mifs(unsigned count);

// KiB by name ("Private_Dirty", "Pss", ...), from smaps_rollup.
std::map<std::string, long> memory_of(pid_t program);

double processor_seconds_of(pid_t program); // since its start

// Starts a program with a clean environment and two capabilities.
#pragma once

#include "run/options.h"

#include <cstdint>
#include <sys/types.h>

struct child_plan {
  const char *program;      // path
  char *const *arguments;   // argv, null at its end
  char *const *environment; // likewise
  int network_namespace;    // entered before rights are given up; -1 = the supervisor's own
  int standard_output;
  int standard_error;
  const char *nvram_file;    // written before the program starts: the MAC address of `lan`; null = none
  const interface_name *lan; // its name within the namespace
};

// Starts it. It is killed when the supervisor ends, however that ends; a terminal's interrupt does not reach it.
// Returns its process number, or -1 after it has said why not. What goes wrong later, up to exec, it says on its
// standard error and ends with status 126.
pid_t start_child(const child_plan &plan);

// Whether the calling process has a capability (linux/capability.h) in effect.
bool has_capability(int capability);

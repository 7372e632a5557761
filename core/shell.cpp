#include "core/shell.h"

#include <cstdlib>

int run_shell_command(const char *command) { return std::system(command); }

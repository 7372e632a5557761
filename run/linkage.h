// Whether a program can have a library preloaded.
#pragma once

// False for a program that is linked statically, and for what cannot be read as a program of this machine.
bool loads_libraries(const char *program);

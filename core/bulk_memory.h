// Where arrays stand of which seldom more than the beginning is used: behind all other variables, which then share a
// few pages of memory instead of being spread between them.
#pragma once

// AddressSanitizer guards only variables that have no section of their own. The linker sorts sections by name.
#ifdef TARNWICK_SANITIZED
#define IN_BULK_MEMORY
#else
#define IN_BULK_MEMORY [[gnu::section(".bss.~bulk")]]
#endif

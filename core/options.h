// Command line: "vu:d:i:q:m:b".
#pragma once

#include <cstdint>

// Slot for the next interface name. One counter for -d and -i and all their repetitions, never reset, so that
// "-d br0 -i eth1" leaves slot 0 of the ignore table empty. Kept for compatibility.
extern std::int32_t InterfaceNameCounter;

// Reads all options into the settings; names are kept as pointers into `argv`, lists are split in place. Returns 0,
// or -1 after it has printed the usage text or logged what is missing.
int parse_arguments(int argc, char **argv);

// One option each; the argument may be null, which is logged and refused with -1. getopt never hands out a null.
int set_proxy_mode(const char *text);
int set_querier(const char *text);
int set_downstream_names(char *comma_separated);
int set_ignore_names(char *comma_separated);

void print_usage();

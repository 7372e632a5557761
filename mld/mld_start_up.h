// The settings and pools, in the order in which start-up makes them; the socket and the interfaces follow.
#pragma once

// Zeroes MldRouter and writes the settings and the interface names. Always returns 0.
int init_mld_config();

// Fill the pools. Each returns 0, or -1 after logging; the host and query pools stop the proxy when they fail, the
// group pool leaves that to the caller.
int init_mld_group();
int init_mld_host();
int init_mld_query();

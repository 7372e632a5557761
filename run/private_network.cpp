#include "run/private_network.h"

bool make_private_network(const network_wish &, private_network &) { return false; }
void remove_private_network(private_network &) {}
bool is_private_network_ready(const private_network &) { return false; }
bool is_private_network_whole(const private_network &) { return false; }
void remove_stale_private_network(const run_options &) {}
int explain_networks(const run_options &) { return 1; }

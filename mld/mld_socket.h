// The raw ICMPv6 socket through which the proxy claims multicast routing and hears every MLD message.
#pragma once

// Opens `MldRouter.socket` and sets its options. Returns 0, or -1 at the first failure after logging it; the socket
// stays open then, since the program ends.
int init_mld_socket();

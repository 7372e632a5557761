// The raw IGMP socket through which the proxy claims multicast routing and hears every IGMP message.
#pragma once

// Opens `IgmpRouter.socket` and sets its options; in mode 4to6 it claims IPv6 multicast routing on the same socket.
// Returns 0, or -1 at the first failure after logging it; what was done before it stays, since the program ends.
int init_igmp_socket();

// The raw ICMPv6 socket that holds the companion's memberships and makes its multicast-routing requests.
#pragma once

// Opens the socket; nothing is ever delivered to it. Makes sure that the kernel has IPv6 multicast routing and that
// this process may use it. Returns the socket, or -1 after it has said why not.
int open_routing_socket();

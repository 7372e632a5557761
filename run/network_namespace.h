// Network namespaces that a descriptor holds: each vanishes, with its links, when nobody holds it and no process is in
// it any more.
#pragma once

// Makes one, in which no router advertisement is taken, nothing is forwarded but multicast, and interfaces get no
// address but the link-local one. Returns its descriptor, close-on-exec, or -1 after it has said why not. The calling
// process stays where it is.
int make_network_namespace();

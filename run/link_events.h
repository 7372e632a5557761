// Wakes the loop when links or IPv6 addresses change. What has changed is then looked up, not read from here: so
// nothing is missed when the kernel drops notifications.
#pragma once

// A netlink socket that is subscribed to links and IPv6 addresses; -1 after it has said why not.
int open_link_events();

// Reads away what is there.
void drain_link_events(int events);

// The rtnetlink sockets: one that notifications come in on, a passing one for questions.
#pragma once

#include <cstdint>

// Opens the socket and subscribes to links, IPv6 settings and IPv6 multicast routes. Returns it, or -1 after it has
// said why not.
int open_notification_socket();

enum class notification_state {
  all_read, // nothing more is waiting
  more,     // some were handled, others wait
  lost,     // the kernel had no room; some are missing
  failed    // the socket is of no use any more; it was said why
};

// Handles what is waiting, but not for ever: a flood must not keep the signals out.
notification_state handle_notifications(int socket);

// Reads the kernel's table of IPv6 multicast routes and hands every group's entry to watch_group_entry. A retry is due
// when the kernel could not be asked, after it has said why.
void read_group_entries();

// How many MIFs stand on the interface: 0 = none. -1 if the kernel could not be asked, after it has said why; a retry
// is due then. -1 also when the interface has gone meanwhile, as a notification says.
std::int32_t ask_mc_forwarding(std::uint32_t index);

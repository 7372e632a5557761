// The raw ICMPv6 socket on which the companion hears MLD messages and sends queries.
#pragma once

// Opens the socket: only MLD messages come in, with arrival interface, hop limit and hop-by-hop options; what goes out
// has hop limit 1 and the Router Alert option and does not come back to this router. Returns it, or -1 after it has
// said why not.
int open_mld_socket();

enum class mld_state {
  all_read, // nothing more is waiting
  more,     // some were handled, others wait
  failed    // the socket is of no use any more; it was said why
};

// Handles what is waiting, but not for ever: a flood must not keep the signals out.
mld_state handle_mld_messages(int socket);

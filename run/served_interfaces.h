// The upstream and the LAN interfaces: as they are now, and as they were when the daemon was started.
#pragma once

#include "run/interface_state.h"
#include "run/options.h"

#include <array>
#include <cstdint>

inline constexpr std::size_t MOST_SERVED = MOST_DOWNSTREAMS + 1;

struct served_interface {
  interface_name name;
  interface_state now;
  interface_state given;           // index 0: the daemon was started without it
  std::int64_t not_ready_since_ms; // up, but without its link-local address; -1 = it is not so
};

struct served_interfaces {
  std::array<served_interface, MOST_SERVED> all; // the upstream first
  std::size_t count;
  network_mode network;
};

enum class difference {
  none,
  address,  // its link-local address is gone or another one
  index,    // another interface has that name
  new_here, // the daemon was started without it
};

void fill_served_interfaces(const run_options &options, served_interfaces &served);

// Asks the kernel about each. False if it could not be asked about one, of which the last state is kept.
bool look_at_served_interfaces(served_interfaces &served, std::int64_t now_ms);

// Whether the daemon can be started with it: it is up and, where the daemon itself uses it, has its link-local address.
bool is_ready(const served_interfaces &served, const served_interface &one);

// The upstream and at least one LAN interface.
bool can_start(const served_interfaces &served);
bool is_everything_ready(const served_interfaces &served);

// The daemon is started now with all that are ready.
void give_ready_interfaces(served_interfaces &served);
void forget_given_interfaces(served_interfaces &served);

// What a running daemon does not know of the interface. An interface that is away, down or just getting its address
// makes no difference: it may come back as it was. `until_ms` is set to the time at which to look again, if earlier.
difference find_difference(const served_interfaces &served, const served_interface &one, std::int64_t now_ms,
                           std::int64_t &until_ms);

// Whether one that the daemon was started with is away, another one or down: the daemon's own end would set flags by
// name, and bring up what somebody has put down.
bool would_end_set_wrong_flags(const served_interfaces &served);

// "wan0 (not there), br0 (down)": those that are waited for.
using waiting_text = std::array<char, 256>;
void describe_missing(const served_interfaces &served, waiting_text &text);

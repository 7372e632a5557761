// The upstream and the downstream interfaces, by name: which index each has now, and what was done there.
#pragma once

#include "assist/notification.h"
#include "assist/options.h"
#include "assist/querier.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

struct watched_interface {
  interface_name name;
  std::uint32_t index; // 0 = not there
  bool is_upstream;
  bool is_waited_for;   // it was said that this one is not there
  bool is_joined;       // downstream: member of ff02::16
  std::int32_t refusal; // errno of the last refused join, 0 = none since
  lan_querier querier;  // downstream
};

struct interface_watch {
  int routing_socket;
  int mld_socket;
  bool is_table_due; // the upstream is a MIF, and the kernel's table is to be read once every interface was looked at
  std::array<watched_interface, MOST_DOWNSTREAMS + 1> interfaces; // the upstream first
  std::size_t count;
};

extern interface_watch InterfaceWatch;

std::span<watched_interface> watched_interfaces();

// The downstream interface that has this index now, or null.
watched_interface *find_downstream(std::uint32_t index);

// The downstream interface at a place on the command line, from 0, or null.
const watched_interface *downstream_at(std::size_t place);

// Its place.
std::size_t place_of(const watched_interface &downstream);

// Fills the table and does what can be done already. Notifications must be coming in before this looks.
void start_watch(const assist_options &options, int routing_socket, int mld_socket);

// Looks at everything as if for the first time. Needed when notifications were lost: an interface may have been
// deleted and made again under the same index, so the memberships are made anew, too.
void look_at_everything();

// Acts on one notification.
void handle_notification(const notification &event);

// Takes everything back: static entry, then memberships.
void stop_watch();

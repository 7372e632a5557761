// What the kernel reports by rtnetlink, reduced to what the companion acts on.
#pragma once

#include "assist/netlink_reader.h"
#include "assist/options.h"
#include "core/address.h"

enum class notification_kind {
  other,       // of no concern: unknown, malformed, or about something else
  link_there,  // RTM_NEWLINK: `index` now has the name `name`
  link_gone,   // RTM_DELLINK of `index`
  ipv6_there,  // RTM_NEWNETCONF: IPv6 settings of `index`, among them perhaps `mc_forwarding`
  ipv6_gone,   // RTM_DELNETCONF: `index` has lost its IPv6 side (deleted, or its MTU fell below 1280)
  entry_there, // RTM_NEWROUTE of the forwarding entry (`origin`, `group`): `input`, `output_count`, `outputs`
  entry_gone   // RTM_DELROUTE of the forwarding entry (`origin`, `group`), with what it had
};

inline constexpr std::int32_t MC_FORWARDING_UNKNOWN = -1;

struct notification {
  notification_kind kind;
  std::uint32_t index;
  interface_name name;
  std::int32_t mc_forwarding; // MIFs on the interface: 0 = none
  std::uint32_t input;        // interface index of the parent MIF, 0 = not registered
  std::uint32_t output_count;
  std::uint32_t outputs; // bit i = interface index i, for indexes below 32; tarnwick has MIFs on no others
  bool is_static;        // somebody besides tarnwick has written the entry; the kernel keeps it when tarnwick ends
  ipv6_address origin;   // :: = all sources
  ipv6_address group;
};

// The bit of an interface index among `outputs`, 0 where there is none.
inline std::uint32_t output_bit(std::uint32_t index) { return index < 32 ? std::uint32_t{1} << index : 0; }

// Whether an entry notification is about (::, ::).
inline bool is_static_entry(const notification &event) {
  return event.origin == In6AddrAny && event.group == In6AddrAny;
}

// Cuts one message off the front of `rest`. False when nothing whole is left. Addresses and numbers as in the kernel's
// headers: linux/if_link.h, linux/netconf.h, linux/rtnetlink.h.
bool next_notification(netlink_bytes &rest, notification &event);

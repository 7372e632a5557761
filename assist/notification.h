// What the kernel tells by rtnetlink, reduced to what the companion acts on.
#pragma once

#include "assist/netlink_reader.h"
#include "assist/options.h"

enum class notification_kind {
  other,       // of no concern: unknown, malformed, or about something else
  link_there,  // RTM_NEWLINK: `index` now has the name `name`
  link_gone,   // RTM_DELLINK of `index`
  ipv6_there,  // RTM_NEWNETCONF: IPv6 settings of `index`, among them perhaps `mc_forwarding`
  ipv6_gone,   // RTM_DELNETCONF: `index` has lost its IPv6 side (deleted, or its MTU fell below 1280)
  entry_there, // RTM_NEWROUTE of the static entry (::, ::): `input`, `output_count`, `output`
  entry_gone   // RTM_DELROUTE of the static entry (::, ::)
};

inline constexpr std::int32_t MC_FORWARDING_NOT_TOLD = -1;

struct notification {
  notification_kind kind;
  std::uint32_t index;
  interface_name name;
  std::int32_t mc_forwarding; // MIFs on the interface: 0 = none
  std::uint32_t input;        // interface index of the parent MIF, 0 = not registered
  std::uint32_t output_count;
  std::uint32_t output; // interface index of the last output
};

// Cuts one message off the front of `rest`. False when nothing whole is left. Addresses and numbers as in the kernel's
// headers: linux/if_link.h, linux/netconf.h, linux/rtnetlink.h.
bool next_notification(netlink_bytes &rest, notification &told);

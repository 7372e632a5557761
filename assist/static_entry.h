// The static entry (::, ::) of the kernel's IPv6 multicast forwarding cache, with the upstream MIF as parent and as
// only output. A mainline kernel forwards by tarnwick's any-source entries (::, G) only while it stands. tarnwick gives
// every MIF its interface's index as number, so the upstream's index is the MIF, too.
#pragma once

#include "assist/notification.h"

#include <cstdint>

struct static_entry {
  int socket;                // routing socket
  interface_name upstream;   // for the log
  std::uint32_t index;       // upstream interface, 0 = not there
  bool is_mif_registered;    // tarnwick has made the upstream a MIF
  bool is_added;             // the entry is ours to take away
  bool has_shield;           // a newer entry stands before it, which takes every change in its place
  bool awaits_own_message;   // our last request's own notification has not been read yet
  std::int32_t refusal;      // errno of the last request that the kernel refused, 0 = none since
  bool is_waiting;           // repairs have used up the processor time of the running second
  std::int32_t repairs_said; // within the running second
  std::int64_t second_began_ms;
  std::int64_t used_before_us; // processor time of this process when the second began
};

extern static_entry StaticEntry;

// The upstream interface has become a MIF, or may have been made one anew: adds the entry. An entry that was there
// before the MIF has no effect until it is added again, so this always asks the kernel.
void handle_mif_registered();

// The MIF is gone. The entry stays: it serves again when tarnwick comes back.
void handle_mif_released();

// The upstream interface itself is gone: takes the entry away, its parent will never come back.
void handle_upstream_gone();

// Adds the entry again when somebody has taken or changed it. tarnwick does so itself now and then: dropping a group
// whose address ends in 64 zero bits deletes (::, ::) and makes it anew with downstream outputs, and records with
// sources for group :: overwrite it. While the shield stands a change takes that and needs no answer.
void handle_entry_notification(const notification &event);

// Takes away what was added.
void remove_static_entry();

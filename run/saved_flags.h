// Interface flags as they were before the daemon set any. It puts them back when it ends, but not when it is killed.
#pragma once

#include "run/options.h"

#include <cstdint>

struct saved_flags {
  std::uint32_t index;
  std::uint16_t flags; // IFF_PROMISC and IFF_ALLMULTI (net/if.h)
};

// Notes the flags of an interface, unless it is noted already. What is noted also stands in the runtime folder.
void save_flags(std::uint32_t index, std::uint16_t flags);

// Sets IFF_PROMISC and IFF_ALLMULTI of every noted interface that is still there to what they were. Changes no other
// flag: a link that is down stays down. Notes stay.
void restore_flags();

// Takes over what a killed supervisor has noted and puts those flags back.
void restore_left_flags();

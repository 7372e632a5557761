// Which interfaces have a group, and the writing of outputs. Shared by what the kernel reports and what hosts say.
#pragma once

#include "assist/group_table.h"

struct group_outputs {
  int socket;                // routing socket
  std::uint32_t upstream;    // index of the upstream interface while it is a MIF, else 0
  std::int32_t refusal;      // errno of the last request that the kernel refused, 0 = none since
  std::int32_t join_refusal; // the same of joins upstream
};

extern group_outputs GroupOutputs;

tenths tenths_now();

// The MIF of the downstream interface at this place; empty if there is none.
mif_set mif_at(std::size_t place);

// The MIFs of the downstream interfaces on which tarnwick has the group.
mif_set standing_on(const watched_group &group);

// Asks the kernel for these outputs. Says once why it refused.
void write_outputs(watched_group &group, cache_entry &entry, mif_set outputs);

// Puts a shield before the group's (::, G) entry, if that remedy is on.
void renew_shield(watched_group &group);

// IPv4 groups as IPv6 groups, for mode 4to6: the operator's prefix `MldPrefix` with the IPv4 group in the low 32 bits.
#pragma once

#include "core/address.h" // its netinet/in.h must come before linux/mroute6.h, or both define in6_addr

#include <cstdint>
#include <linux/mroute6.h>
#include <netinet/in.h>

// Both take the word of a group record and write an IPv6 group. The two routers' groups (224.0.0.2 and 224.0.0.22 as
// words) go to ff02:: with 2 or 22 stored as a native word; every other word is copied behind the prefix as it lies.
void fill_v6mreq_group_address(in6_addr &address, const std::uint32_t *group);

// Writes only the group's address: the origin stays ::, which makes the entry one for every source.
void fill_mf6cctrl_group_address(mf6cctl &request, const std::uint32_t *group);

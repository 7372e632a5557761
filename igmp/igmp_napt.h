// The NAT-PT device `natpt0`, which translates between an IPv4 group and the IPv6 group that stands for it.
#pragma once

#include <cstdint>

// Tell the device about the pair of addresses, or that it is over. A refusal is logged, and the request's socket stays
// open then.
void add_napt_map(std::uint32_t group);
void del_napt_map(std::uint32_t group);

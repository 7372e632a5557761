// The LAN address from NVRAM.
#pragma once

#include <cstdint>

// "a.b.c.d" under the key `lan_ipaddr` as a + (b << 8) + (c << 16) + (d << 24); fields that are missing count as 0.
// Kept for compatibility; nothing in the proxy calls it.
std::uint32_t igmp_lan_address();

// Process-wide settings. Written at start-up only (options first, then NVRAM); nothing re-reads them later.
#pragma once

#include "core/address.h"

#include <array>
#include <cstdint>
#include <net/if.h>

enum proxy_mode : std::int32_t {
  PROXY_MODE_4TO4 = 0, // IGMP on both sides
  PROXY_MODE_4TO6 = 1, // IGMP on the LAN, MLD on the WAN
  PROXY_MODE_6TO6 = 2  // MLD on both sides; the only one that start-up runs
};

inline constexpr std::int32_t INTERFACE_NAME_SLOTS = 8;

using name_pointers = std::array<const char *, INTERFACE_NAME_SLOTS>; // into the argument vector; null: no name
using interface_name = std::array<char, IF_NAMESIZE>;                 // NUL-terminated, longer names cut

extern std::int32_t ProxyMode;
extern std::int32_t ProxyDebugLevel;
extern std::int32_t ProxyIsADaemon;
extern const char *UpstreamInterfacesName;
extern name_pointers DownstreamInterfacesName;
extern std::int32_t DownstreamInterfacesNum; // may exceed the table: names beyond it are counted but not kept
extern name_pointers IgnoreInterfacesName;
extern std::int32_t IgnoreInterfacesNum;
extern std::int32_t ForceNonQuerier;
extern std::int32_t ImmediateLeave;
extern std::array<std::uint8_t, 6> LanMac;
extern ipv6_address MldPrefix;

// Copies a name, cut to what an interface name can hold; null counts as the empty name.
interface_name copy_interface_name(const char *name);

// Copies the first `count` names, passing over empty slots so that the copies are gap-free: "-i" given before "-d"
// leaves holes in the option tables, and an empty copy ends the list for its readers.
std::array<interface_name, INTERFACE_NAME_SLOTS> copy_interface_names(const name_pointers &names, std::int32_t count);

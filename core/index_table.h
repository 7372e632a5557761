// Device indexes in small dense slots, and the two interfaces that mode 4to6 treats apart. Used by the IGMP proxy.
#pragma once

#include <array>
#include <cstdint>

inline constexpr std::int32_t INDEX_TABLE_SLOTS = 32; // as many as the kernel has VIFs (MAXVIFS, linux/mroute.h)

extern std::array<std::int32_t, INDEX_TABLE_SLOTS> index_table; // kernel interface indexes; 0: free slot

// Kernel interface indexes, 0 until discovery has met the interface. Requests of mode 4to6 that would name the LAN
// interface name the NAT-PT device instead.
extern std::int32_t LanIndex;
extern std::int32_t NatptIndex;

// `NatptIndex` in place of `LanIndex`; any other index as it is.
std::int32_t natpt_index_for(std::int32_t ifindex);

// The first free slot, -1 if there is none.
std::int32_t find_free_index();

// Stores an interface index in the first free slot and returns the slot; prints a line and returns -1 when the table
// is full. An index that is there already takes a second slot.
std::int32_t add_dev_index(std::int32_t ifindex);

// The first slot that holds the index, -1 if none does. Logs an index below 1.
std::int32_t find_used_index(std::int32_t ifindex);

// Frees a slot and returns its number; a number outside the table is returned as it is.
std::int32_t free_used_index(std::int32_t slot);

// Frees the first slot that holds the index and returns it; prints a line and returns -1 if none does.
std::int32_t del_dev_index(std::int32_t ifindex);

// Prints the used slots. Kept for debugging; nothing calls it.
void show_index_table();

// The daemon's memory on the mute kernel: blocks of an arena with guarded ends, so that a new proxy, with some hundreds
// of records, costs a fuzzer next to nothing. Under AddressSanitizer the bytes behind a block and freed blocks are
// poisoned as with malloc, and the block freed last is the last to be used again.
#pragma once

#include <cstddef>

namespace mute {

struct memory_use {
  std::size_t blocks; // taken and not given back
  std::size_t bytes;
};

extern memory_use MemoryUse;

// Filled with a pattern, since malloc's memory is not cleared either. Ends the program when the arena is full: the
// daemon never asks for more than its pools and a frame.
void *take_block(std::size_t size);

// Ends the program with a message when the daemon does not have such a block.
void give_back_block(void *block);

// Takes all blocks back. Returns how many there were.
std::size_t give_back_all_blocks();

} // namespace mute

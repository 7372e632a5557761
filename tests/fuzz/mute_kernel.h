// A kernel that silently grants every request, for fuzzers and soaks that make millions of them. It can be made to
// refuse, hands out one message at a time and keeps track of the daemon's memory. Linked through the linker's --wrap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace mute {

struct message {
  std::span<const std::uint8_t> bytes;
  const std::uint8_t *sender;      // 16 bytes (IPv6) or 4 (IPv4)
  const std::uint8_t *destination; // 4 bytes; set for IPv4 messages, else null
  int ifindex;
  bool has_packet_info;
};

// Its index is the number behind the first letter of its name: "x3" is number 3, "x5ppp" number 5.
struct network_interface {
  const char *name;
  short flags;
};

// Which of the daemon's next requests are refused.
struct refusal_plan {
  unsigned int grants;  // how many are granted before it begins
  unsigned int length;  // for how many it then goes on
  std::uint8_t pattern; // a bit for each of eight, over and over: 1 refuses
};

struct kernel {
  refusal_plan refusals;
  message next;               // what recvmsg delivers
  std::span<const char> file; // what any fopen delivers
  std::span<const network_interface> interfaces;
  std::uint64_t requests; // made so far
  std::uint64_t commands; // shell commands among them
};

extern kernel Kernel;

// Sends standard output to /dev/null; nobody reads the daemon's log here.
void silence();

// Runs daemon code against this kernel; every other call goes to the system.
void play(const std::function<void()> &daemon_code);

// Releases the blocks and streams that the daemon has lost on purpose. Returns how many blocks there were.
std::size_t release_what_is_lost();

// Ends the program with a message on standard error, so that the fuzzer keeps the input.
[[noreturn]] void fail(const std::string &what);

} // namespace mute

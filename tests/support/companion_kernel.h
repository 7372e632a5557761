// A kernel that does what the test says and notes every request. A request that the test does not assert fails it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

inline constexpr int ROUTING_SOCKET = 1007;
inline constexpr int MLD_SOCKET = 1008;

struct scripted_datagram {
  std::vector<std::byte> bytes;
  int reason = 0;               // errno instead of bytes
  std::uint32_t sender = 0;     // 0 = the kernel
  std::function<void()> then{}; // what happens in the world while it is read
};

// An MLD message as a raw socket gets it.
struct scripted_mld {
  std::vector<std::uint8_t> bytes;
  unsigned index = 4;
  std::string sender = "fe80::101";
  std::string destination = "ff02::16";
  int hop_limit = 1;
  std::vector<std::uint8_t> hop_by_hop{58, 0, 5, 2, 0, 0, 1, 0}; // empty = the packet has no such header
  int reason = 0;                                                // errno instead of bytes
  std::function<void()> then{};                                  // what happens in the world while it is read
};

// A request that fails by its number, for sweeps.
struct planned_failure {
  int number = 0; // counted as in `calls`
  int reason = 0;
  bool fails_rest = false;
  bool is_armed = false;
};

struct scripted_kernel {
  std::map<std::string, unsigned> indexes;         // interfaces that are there
  std::map<std::string, std::deque<int>> refusals; // by name of the option or call; 0 = accepted
  planned_failure failures;
  int calls = 0;                                  // requests that could have failed
  std::map<unsigned, std::int32_t> mc_forwarding; // what is answered to RTM_GETNETCONF, by index
  std::vector<std::byte> routes;                  // what is answered to RTM_GETROUTE
  std::deque<scripted_datagram> datagrams;        // then EAGAIN
  std::map<unsigned, std::string> own_addresses;  // what is sent from, by interface index
  std::vector<std::string> entries;               // "ORIGIN GROUP" of the forwarding cache
  std::vector<std::vector<std::uint8_t>> queries; // bytes of what was sent by sendmsg
  std::deque<scripted_mld> mld;                   // then EAGAIN
  std::vector<std::string> requests;
  std::vector<std::vector<std::byte>> sent;
  std::int64_t now_ms = 1'000'000;
  std::int64_t used_us = 0; // processor time
};

extern scripted_kernel Kernel;

using lines = std::vector<std::string>;

// Starts each test with an empty kernel; fails it for requests and log lines that it left unread.
class companion_fixture : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  lines requests(); // since the last call
  lines said();     // log lines since the last call, without "tarnwick-assist: "
};

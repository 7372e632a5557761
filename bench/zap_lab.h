// Where zaps are measured: a source, the router, and a host, each in a network of its own.
//
//     [ source ] source0 === up0 [ router ] down0 === host0 [ host ]
#pragma once

#include "bench/network.h"
#include "core/address.h"

#include <cstdint>
#include <netinet/in.h>
#include <vector>

struct zap_lab {
  network router;
  network host;
  network source;
  int capture; // reports as they arrive in the router
  int sender;
};

// Makes the networks; ends in the router's.
zap_lab make_zap_lab();

// Address and port of a stream; `scope` 0: none.
sockaddr_in6 to_port(const ipv6_address &group, std::uint32_t scope);

// A socket of the host that receives the group's stream with the time of its arrival, and has not joined yet. The
// caller is in the host's network.
int open_listener(const ipv6_address &group);
void join_group(int listener, const ipv6_address &group);

// Has the kernel note when what the socket receives arrived.
void stamp_arrivals(int socket);

// Receives one message with the kernel's time of its arrival; 0 when none comes in time.
std::int64_t arrival_ns(int socket, std::vector<std::uint8_t> &bytes, int deadline_ms);

std::int64_t realtime_ns(); // the clock of the time stamps

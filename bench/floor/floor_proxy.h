// The least that a proxy must ask of the kernel. No state, no log, no timers: what the daemon's cost is compared with.
#pragma once

#include "core/address.h"

#include <cstdint>
#include <span>

struct floor_proxy {
  int router_socket;      // holds the multicast routing and receives the reports
  int upstream_socket;    // holds the upstream memberships
  int idle_socket;        // a second descriptor to wait on, as any proxy has one for its clock
  std::uint32_t upstream; // interface indexes, used as MIF numbers
  std::uint32_t downstream;
};

struct floor_message {
  alignas(8) std::array<std::uint8_t, 1600> bytes;
  std::uint32_t ifindex; // of arrival
};

// Takes over the multicast routing of the namespace that the caller is in. Ends the program on failure.
floor_proxy floor_open(const char *upstream, const char *downstream);
void floor_close(const floor_proxy &proxy);

// Waits for a message and receives it with its arrival interface. False: a signal came.
bool floor_receive(const floor_proxy &proxy, floor_message &message);

// One request each; the result is the kernel's.
int floor_join(const floor_proxy &proxy, const ipv6_address &group);
int floor_leave(const floor_proxy &proxy, const ipv6_address &group);
int floor_join_source(const floor_proxy &proxy, const ipv6_address &group, const ipv6_address &source);
int floor_leave_source(const floor_proxy &proxy, const ipv6_address &group, const ipv6_address &source);
int floor_add_entry(const floor_proxy &proxy, const ipv6_address &origin, const ipv6_address &group);
int floor_delete_entry(const floor_proxy &proxy, const ipv6_address &origin, const ipv6_address &group);

// A packet socket, one frame, and the close, which waits for the kernel.
void floor_send_query(const floor_proxy &proxy, std::span<const std::uint8_t> frame);

// The two things that a mainline kernel needs beside any such proxy: membership of ff02::16 downstream, and the static
// entry that lets (::, G) entries forward. Returns the socket that holds the membership.
int prepare_kernel(std::uint32_t upstream, std::uint32_t downstream);

// What the kernel reports about a network interface (RTM_GETLINK).
#pragma once

#include "assist/netlink_reader.h"
#include "run/options.h"

#include <array>
#include <cstdint>
#include <net/ethernet.h>

using ether_address = std::array<std::uint8_t, ETH_ALEN>;

struct link_facts {
  std::uint32_t index;
  interface_name name;
  std::uint16_t hardware;      // ARPHRD_ETHER, ...
  std::uint32_t flags;         // IFF_UP, ...
  std::uint32_t mtu;           // bytes
  std::uint32_t master;        // index of the bridge that it is a port of, or the like; 0 = none
  std::uint8_t port_state;     // of a bridge's port: BR_STATE_... of linux/if_bridge.h
  ether_address address;       // all 0 for what has none
  std::array<char, 16> kind;   // "bridge", "vlan", ...; empty for a network card
  std::array<char, 256> alias; // IFALIASZ; empty = none
};

// Reads the payload of an RTM_NEWLINK message. False if it is none.
bool read_link_facts(netlink_bytes payload, link_facts &facts);

// Ask the kernel, in the namespace of the socket. Return 0, or the reason: ENODEV = not there.
int ask_link(int socket, const char *name, link_facts &facts);
int ask_link(int socket, std::uint32_t index, link_facts &facts);

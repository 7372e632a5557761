#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

// What the test's sender and receiver share, for IPv6 and IPv4 alike. Both end with status 2 and a reason when they
// cannot do their work.

[[noreturn]] inline void give_up(const char *what) {
  std::perror(what);
  std::exit(2);
}

struct socket_address {
  sockaddr_storage storage; // its family is what the text was written in
  socklen_t length;
};

inline const sockaddr *generic(const socket_address &address) {
  return reinterpret_cast<const sockaddr *>(&address.storage);
}

// The level of a socket option for this address.
inline int protocol_of(const socket_address &address) {
  return address.storage.ss_family == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
}

inline socket_address to_socket_address(const char *text, unsigned interface, std::uint16_t port) {
  socket_address address{};
  sockaddr_in6 v6{};
  sockaddr_in v4{};
  if (inet_pton(AF_INET6, text, &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_scope_id = interface;
    address.length = sizeof v6;
    std::memcpy(&address.storage, &v6, sizeof v6);
  } else if (inet_pton(AF_INET, text, &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    address.length = sizeof v4;
    std::memcpy(&address.storage, &v4, sizeof v4);
  } else {
    std::fprintf(stderr, "not an IP address: %s\n", text);
    std::exit(2);
  }
  return address;
}

inline ipv6_mreq to_ipv6_membership(const socket_address &group, unsigned interface) {
  sockaddr_in6 address{};
  std::memcpy(&address, &group.storage, sizeof address);
  return {address.sin6_addr, interface};
}

inline ip_mreqn to_ipv4_membership(const socket_address &group, unsigned interface) {
  sockaddr_in address{};
  std::memcpy(&address, &group.storage, sizeof address);
  return {address.sin_addr, {}, static_cast<int>(interface)};
}

// The address alone, in its usual text form.
inline const char *to_text(const socket_address &address, char (&text)[INET6_ADDRSTRLEN]) {
  if (address.storage.ss_family == AF_INET6) {
    const ipv6_mreq v6 = to_ipv6_membership(address, 0);
    return inet_ntop(AF_INET6, &v6.ipv6mr_multiaddr, text, sizeof text);
  }
  const ip_mreqn v4 = to_ipv4_membership(address, 0);
  return inet_ntop(AF_INET, &v4.imr_multiaddr, text, sizeof text);
}

inline unsigned to_interface_index(const char *name) {
  const unsigned index = if_nametoindex(name);
  if (index == 0) {
    give_up(name);
  }
  return index;
}

inline void set_option(int socket, int level, int option, const void *value, socklen_t length, const char *what) {
  if (setsockopt(socket, level, option, value, length) == -1) {
    give_up(what);
  }
}

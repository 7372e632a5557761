#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

// What the test's sender and receiver share. Both end with status 2 and a reason when they cannot do their work.

[[noreturn]] inline void give_up(const char *what) {
  std::perror(what);
  std::exit(2);
}

inline sockaddr_in6 to_socket_address(const char *text, unsigned interface, std::uint16_t port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_scope_id = interface;
  if (inet_pton(AF_INET6, text, &address.sin6_addr) != 1) {
    std::fprintf(stderr, "not an IPv6 address: %s\n", text);
    std::exit(2);
  }
  return address;
}

inline unsigned to_interface_index(const char *name) {
  const unsigned index = if_nametoindex(name);
  if (index == 0) {
    give_up(name);
  }
  return index;
}

inline void set_option(int socket, int option, const void *value, socklen_t length, const char *what) {
  if (setsockopt(socket, IPPROTO_IPV6, option, value, length) == -1) {
    give_up(what);
  }
}

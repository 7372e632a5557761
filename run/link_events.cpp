#include "run/link_events.h"

#include "run/report.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::array<int, 2> wanted_groups{RTNLGRP_LINK, RTNLGRP_IPV6_IFADDR};
constexpr int most_at_once = 256;

bool subscribe(int events) {
  const sockaddr_nl any_address{AF_NETLINK, 0, 0, 0}; // the kernel passes over a subscriber that has no address
  if (bind(events, reinterpret_cast<const sockaddr *>(&any_address), sizeof(any_address)) != 0) {
    return false;
  }
  for (const int group : wanted_groups) {
    if (setsockopt(events, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) {
      return false;
    }
  }
  return true;
}

} // namespace

int open_link_events() {
  const int events = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (events < 0 || !subscribe(events)) {
    say_refused(errno, "cannot have kernel notifications of interfaces");
    if (events >= 0) {
      close(events);
    }
    return -1;
  }
  return events;
}

void drain_link_events(int events) {
  std::array<std::byte, 64> beginning; // the rest of each message is dropped by the kernel
  for (int i = 0; i < most_at_once; ++i) {
    if (recv(events, beginning.data(), beginning.size(), MSG_DONTWAIT) < 0 && errno != ENOBUFS && errno != EINTR) {
      return;
    }
  }
}

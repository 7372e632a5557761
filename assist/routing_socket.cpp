#include "assist/routing_socket.h"

#include "assist/report.h"
#include "core/address.h" // its netinet/in.h must come before linux/mroute6.h, or both define in6_addr

#include <cerrno>
#include <linux/mroute6.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void say_why_not_opened(int reason) {
  if (reason == EPERM) {
    say_refused(reason, "cannot open a raw ICMPv6 socket, CAP_NET_RAW is needed");
  } else if (reason == EAFNOSUPPORT) {
    say_refused(reason, "cannot open a raw ICMPv6 socket, this kernel has no IPv6");
  } else {
    say_refused(reason, "cannot open a raw ICMPv6 socket");
  }
}

void say_why_no_routing(int reason) {
  if (reason == EACCES || reason == EPERM) {
    say_refused(reason, "cannot use IPv6 multicast routing, CAP_NET_ADMIN is needed");
  } else if (reason == ENOPROTOOPT || reason == EOPNOTSUPP) {
    say_refused(reason, "this kernel has no IPv6 multicast routing (CONFIG_IPV6_MROUTE)");
  } else {
    say_refused(reason, "cannot use IPv6 multicast routing");
  }
}

// The socket is there for its memberships. Unfiltered, its queue would fill with every ICMPv6 packet of the router.
bool block_delivery(int socket) {
  icmp6_filter filter;
  ICMP6_FILTER_SETBLOCKALL(&filter);
  return setsockopt(socket, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter)) == 0;
}

// A request without its record changes nothing; the kernel says EINVAL once it has found multicast routing in itself
// and CAP_NET_ADMIN in the caller.
int reason_against_routing(int socket) {
  const bool is_accepted = setsockopt(socket, IPPROTO_IPV6, MRT6_DEL_MFC, nullptr, 0) == 0;
  return is_accepted || errno == EINVAL ? 0 : errno;
}

} // namespace

int open_routing_socket() {
  const int opened = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
  if (opened < 0) {
    say_why_not_opened(errno);
    return -1;
  }
  const int reason = reason_against_routing(opened);
  if (reason != 0) {
    say_why_no_routing(reason);
    close(opened);
    return -1;
  }
  if (!block_delivery(opened)) {
    say_refused(errno, "cannot set ICMP6_FILTER");
    close(opened);
    return -1;
  }
  return opened;
}

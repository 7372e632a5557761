#include "assist/mld_socket.h"

#include "assist/mld_hearing.h"
#include "assist/mld_message.h"
#include "assist/report.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip6.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int most_at_once = 64;
constexpr std::size_t longest_options = 64; // hop-by-hop header: Router Alert and padding take 8 bytes

mld_message heard_message;

// Hop-by-hop header with the Router Alert option, value 0 = MLD (RFC 2711), and padding. The kernel fills in the next
// header.
constexpr std::array<std::uint8_t, 8> router_alert{0, 0, IP6OPT_ROUTER_ALERT, 2, 0, 0, IP6OPT_PADN, 0};

struct number_option {
  int option;
  int value;
};

constexpr std::array<number_option, 5> number_options{{{IPV6_RECVPKTINFO, 1},
                                                       {IPV6_RECVHOPLIMIT, 1},
                                                       {IPV6_RECVHOPOPTS, 1},
                                                       {IPV6_MULTICAST_HOPS, 1},
                                                       {IPV6_MULTICAST_LOOP, 0}}};

bool let_only_mld_in(int socket) {
  icmp6_filter filter;
  ICMP6_FILTER_SETBLOCKALL(&filter);
  for (const std::uint8_t type : {ICMPV6_MGM_QUERY, ICMPV6_MGM_REPORT, ICMPV6_MGM_REDUCTION, ICMPV6_MLD2_REPORT}) {
    ICMP6_FILTER_SETPASS(type, &filter);
  }
  return setsockopt(socket, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter)) == 0;
}

bool set_options(int socket) {
  for (const number_option &wanted : number_options) {
    if (setsockopt(socket, IPPROTO_IPV6, wanted.option, &wanted.value, sizeof(wanted.value)) != 0) {
      return false;
    }
  }
  return setsockopt(socket, IPPROTO_IPV6, IPV6_HOPOPTS, router_alert.data(), router_alert.size()) == 0;
}

// Walks the options behind the two bytes of next header and length.
bool holds_router_alert(std::span<const std::uint8_t> header) {
  std::size_t at = sizeof(ip6_hbh);
  while (at + 1 < header.size()) {
    if (header[at] == IP6OPT_PAD1) {
      ++at;
      continue;
    }
    if (header[at] == IP6OPT_ROUTER_ALERT) {
      return true;
    }
    at += 2U + header[at + 1];
  }
  return false;
}

template <typename type> type read_control(const cmsghdr &control) {
  type value{};
  const std::size_t length = control.cmsg_len - CMSG_LEN(0);
  std::memcpy(&value, CMSG_DATA(&control), std::min(sizeof(value), length));
  return value;
}

void read_controls(msghdr &header, mld_message &message) {
  for (cmsghdr *control = CMSG_FIRSTHDR(&header); control != nullptr; control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_level != IPPROTO_IPV6) {
      continue;
    }
    if (control->cmsg_type == IPV6_PKTINFO) {
      const in6_pktinfo info = read_control<in6_pktinfo>(*control);
      message.index = info.ipi6_ifindex;
      message.destination = from_in6_addr(info.ipi6_addr);
    } else if (control->cmsg_type == IPV6_HOPLIMIT) {
      message.hop_limit = read_control<std::int32_t>(*control);
    } else if (control->cmsg_type == IPV6_HOPOPTS) {
      message.has_router_alert = holds_router_alert({CMSG_DATA(control), control->cmsg_len - CMSG_LEN(0)});
    }
  }
}

// False with errno: EAGAIN = nothing waits.
bool receive_message(int socket, mld_message &message) {
  message = {};
  message.hop_limit = -1;
  sockaddr_in6 sender{};
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(std::int32_t)) +
                                                CMSG_SPACE(longest_options)>
      control{};
  iovec element{message.bytes.data(), message.bytes.size()};
  msghdr header{};
  header.msg_name = &sender;
  header.msg_namelen = sizeof(sender);
  header.msg_iov = &element;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t length = recvmsg(socket, &header, MSG_DONTWAIT);
  if (length < 0) {
    return false;
  }
  message.length = static_cast<std::size_t>(length);
  message.sender = from_in6_addr(sender.sin6_addr);
  read_controls(header, message);
  return true;
}

mld_state state_after_failure(int reason) {
  switch (reason) {
  case EAGAIN:
    return mld_state::all_read;
  case EINTR:
    return mld_state::more;
  default:
    say_refused(reason, "cannot read MLD messages");
    return mld_state::failed;
  }
}

} // namespace

int open_mld_socket() {
  const int opened = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
  // The filter first: until then every ICMPv6 packet of the router is queued.
  if (opened < 0 || !let_only_mld_in(opened) || !set_options(opened)) {
    say_refused(errno, "cannot have MLD messages");
    if (opened >= 0) {
      close(opened);
    }
    return -1;
  }
  return opened;
}

mld_state handle_mld_messages(int socket) {
  for (int i = 0; i < most_at_once; ++i) {
    if (!receive_message(socket, heard_message)) {
      return state_after_failure(errno);
    }
    handle_mld_message(heard_message);
  }
  return mld_state::more;
}

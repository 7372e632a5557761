#include "assist/notification_socket.h"

#include "assist/group_watch.h"
#include "assist/interface_watch.h"
#include "assist/notification.h"
#include "assist/report.h"
#include "assist/retry.h"
#include "core/bulk_memory.h"

#include <array>
#include <cerrno>
#include <linux/netconf.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::array<int, 3> wanted_groups{RTNLGRP_LINK, RTNLGRP_IPV6_NETCONF, RTNLGRP_IPV6_MROUTE};

// The kernel's own measure for a netlink buffer is 8 KiB; a link with many properties may take more.
constexpr std::size_t buffer_size = 32768;
constexpr int most_at_once = 64;

// An answer holds a handful of numbers. It has a buffer of its own: questions come up while a notification is handled.
constexpr std::size_t answer_size = 1024;

// The kernel fills a part of a table up to a page of its own, at most 8 KiB.
constexpr std::size_t table_part_size = 8192;
constexpr int most_table_parts = 4096;

// A notification, and behind it the part of the table that may be read while it is handled: both seldom fill a page.
alignas(NLMSG_ALIGNTO) IN_BULK_MEMORY std::array<std::byte, buffer_size + table_part_size> from_kernel;
std::size_t notification_length = 0;

struct table_question {
  nlmsghdr header;
  rtmsg route;
};
static_assert(sizeof(table_question) == sizeof(nlmsghdr) + sizeof(rtmsg));

struct netconf_question {
  nlmsghdr header;
  netconfmsg settings;
  std::array<std::uint8_t, NLMSG_ALIGNTO - sizeof(netconfmsg)> padding;
  nlattr attribute;
  std::uint32_t index;
};
static_assert(sizeof(netconf_question) == sizeof(nlmsghdr) + NLMSG_ALIGNTO + sizeof(nlattr) + sizeof(std::uint32_t));

// The kernel passes over a subscriber that has no address.
bool bind_to_any(int socket) {
  const sockaddr_nl any_address{AF_NETLINK, 0, 0, 0};
  return bind(socket, reinterpret_cast<const sockaddr *>(&any_address), sizeof(any_address)) == 0;
}

bool subscribe(int socket) {
  for (const int group : wanted_groups) {
    if (setsockopt(socket, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) != 0) {
      return false;
    }
  }
  return true;
}

// One datagram into `buffer`, its bytes into `received`. False with errno: EAGAIN = nothing waits, ENOBUFS = some were
// lost or too long. Other processes' messages count as empty.
bool receive_from_kernel(int socket, std::span<std::byte> buffer, netlink_bytes &received) {
  sockaddr_nl sender{};
  socklen_t sender_length = sizeof(sender);
  const ssize_t length = recvfrom(socket, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC,
                                  reinterpret_cast<sockaddr *>(&sender), &sender_length);
  if (length < 0) {
    return false;
  }
  received = {};
  if (sender_length != sizeof(sender) || sender.nl_pid != 0) {
    return true;
  }
  if (static_cast<std::size_t>(length) > buffer.size()) {
    errno = ENOBUFS;
    return false;
  }
  received = buffer.first(static_cast<std::size_t>(length));
  return true;
}

bool send_question(int socket, std::uint32_t index) {
  netconf_question question{};
  question.header.nlmsg_len = sizeof(question);
  question.header.nlmsg_type = RTM_GETNETCONF;
  question.header.nlmsg_flags = NLM_F_REQUEST;
  question.settings.ncm_family = AF_INET6;
  question.attribute.nla_len = sizeof(question.attribute) + sizeof(question.index);
  question.attribute.nla_type = NETCONFA_IFINDEX;
  question.index = index;
  return send(socket, &question, sizeof(question), 0) == static_cast<ssize_t>(sizeof(question));
}

// The kernel answers while it takes the question, so the answer is there already. An interface that has gone is
// answered with an error message, which is not a notification.
std::int32_t read_answer(netlink_bytes answer, std::uint32_t index) {
  for (notification event; next_notification(answer, event);) {
    if (event.kind == notification_kind::ipv6_there && event.index == index) {
      return event.mc_forwarding;
    }
  }
  return MC_FORWARDING_UNKNOWN;
}

bool send_table_question(int socket) {
  table_question question{};
  question.header.nlmsg_len = sizeof(question);
  question.header.nlmsg_type = RTM_GETROUTE;
  question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  question.route.rtm_family = RTNL_FAMILY_IP6MR;
  return send(socket, &question, sizeof(question), 0) == static_cast<ssize_t>(sizeof(question));
}

// The kernel makes the next part while it hands over the one before, so each is there already.
bool read_table(int socket) {
  const auto buffer = std::span{from_kernel}.subspan(NLMSG_ALIGN(notification_length), table_part_size);
  for (int i = 0; i < most_table_parts; ++i) {
    netlink_bytes rest;
    if (!receive_from_kernel(socket, buffer, rest)) {
      return errno == EAGAIN;
    }
    for (notification event; next_notification(rest, event);) {
      if (event.kind == notification_kind::entry_there && !is_static_entry(event)) {
        watch_group_entry(event);
      }
    }
  }
  return true;
}

notification_state state_after_failure(int reason) {
  switch (reason) {
  case EAGAIN:
    return notification_state::all_read;
  case EINTR:
    return notification_state::more;
  case ENOBUFS:
    return notification_state::lost;
  default:
    say_refused(reason, "cannot read kernel notifications");
    return notification_state::failed;
  }
}

} // namespace

int open_notification_socket() {
  const int opened = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (opened < 0 || !bind_to_any(opened) || !subscribe(opened)) {
    say_refused(errno, "cannot have kernel notifications");
    if (opened >= 0) {
      close(opened);
    }
    return -1;
  }
  return opened;
}

notification_state handle_notifications(int socket) {
  for (int i = 0; i < most_at_once; ++i) {
    netlink_bytes rest;
    if (!receive_from_kernel(socket, std::span{from_kernel}.first(buffer_size), rest)) {
      return state_after_failure(errno);
    }
    notification_length = rest.size();
    for (notification event; next_notification(rest, event);) {
      handle_notification(event);
    }
  }
  return notification_state::more;
}

void read_group_entries() {
  const int opened = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  const bool is_read = opened >= 0 && send_table_question(opened) && read_table(opened);
  const int reason = errno;
  if (opened >= 0) {
    close(opened);
  }
  if (!is_read) {
    say_refused(reason, "cannot read the table of multicast routes");
    want_retry();
  }
}

std::int32_t ask_mc_forwarding(std::uint32_t index) {
  alignas(NLMSG_ALIGNTO) std::array<std::byte, answer_size> buffer;
  netlink_bytes answer;
  const int opened = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  const bool is_answered = opened >= 0 && send_question(opened, index) && receive_from_kernel(opened, buffer, answer);
  const int reason = errno;
  if (opened >= 0) {
    close(opened);
  }
  if (!is_answered) {
    say_refused(reason, "cannot ask for the multicast routing state of index %u", index);
    want_retry();
    return MC_FORWARDING_UNKNOWN;
  }
  return read_answer(answer, index);
}

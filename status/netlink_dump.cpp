#include "status/netlink_dump.h"

#include <array>
#include <cerrno>
#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

struct link_request {
  nlmsghdr header;
  ifinfomsg link;
};

// The kernel reads the family alone, from the first byte of what follows the header.
bool send_request(int socket, std::uint16_t type, std::uint8_t family) {
  link_request request{};
  static_assert(sizeof(br_port_msg) == sizeof(ifaddrmsg));
  request.header.nlmsg_len = NLMSG_LENGTH(type == RTM_GETLINK ? sizeof(ifinfomsg) : sizeof(ifaddrmsg));
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.link.ifi_family = family;
  return send(socket, &request, request.header.nlmsg_len, 0) == static_cast<ssize_t>(request.header.nlmsg_len);
}

// 1: more follows; 0: that was all; -1: the kernel refused, errno says why.
int look_for_end(netlink_bytes datagram) {
  netlink_message message;
  while (next_message(datagram, message)) {
    if (message.type == NLMSG_DONE) {
      return 0;
    }
    if (message.type == NLMSG_ERROR) {
      nlmsgerr refusal{};
      read_record(message.payload, refusal);
      errno = -refusal.error;
      return -1;
    }
  }
  return 1;
}

bool receive_dump(int socket, text &messages) {
  constexpr std::size_t longest_datagram = 32768; // NLMSG_GOODSIZE at most
  int progress = 1;
  while (progress == 1) {
    make_room(messages, messages.count + longest_datagram);
    const ssize_t got = recv(socket, messages.first + messages.count, longest_datagram, 0);
    if (got <= 0) {
      return false;
    }
    const auto length = static_cast<std::size_t>(got);
    progress = look_for_end({reinterpret_cast<const std::byte *>(messages.first + messages.count), length});
    messages.count += length;
  }
  return progress == 0;
}

} // namespace

bool read_netlink_dump(text &messages, std::uint16_t type, std::uint8_t family) {
  constexpr timeval patience{2, 0};
  clear_rows(messages);
  const int netlink = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (netlink < 0) {
    return false;
  }
  setsockopt(netlink, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  const bool is_read = send_request(netlink, type, family) && receive_dump(netlink, messages);
  const int reason = errno;
  close(netlink);
  errno = reason;
  return is_read;
}

netlink_bytes bytes_of(const text &messages) {
  return {reinterpret_cast<const std::byte *>(messages.first), messages.count};
}

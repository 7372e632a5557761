#include "run/netlink_exchange.h"

#include "core/bulk_memory.h"
#include "run/namespace_visit.h"

#include <array>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The kernel's own measure for a netlink buffer is 8 KiB; a link with many properties may take more.
constexpr std::size_t buffer_size = 32768;

alignas(NLMSG_ALIGNTO) IN_BULK_MEMORY std::array<std::byte, buffer_size> AnswerBuffer;

} // namespace

int open_netlink(int protocol) { return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol); }

int open_netlink_inside(int network_namespace, int protocol) {
  const int home = begin_visit(network_namespace);
  if (home < 0) {
    return -1;
  }
  const int opened = open_netlink(protocol);
  end_visit(home);
  return opened;
}

int send_request(int socket, netlink_request &request) {
  const std::span<const std::byte> bytes = finish_request(request);
  if (bytes.empty()) {
    return EMSGSIZE;
  }
  return send(socket, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()) ? 0 : errno;
}

int receive_answer(int socket, netlink_bytes &answer) {
  ssize_t length = 0;
  do {
    length = recv(socket, AnswerBuffer.data(), AnswerBuffer.size(), MSG_TRUNC);
  } while (length < 0 && errno == EINTR);
  if (length < 0) {
    return errno;
  }
  if (static_cast<std::size_t>(length) > AnswerBuffer.size()) {
    return EMSGSIZE;
  }
  answer = netlink_bytes{AnswerBuffer}.first(static_cast<std::size_t>(length));
  return 0;
}

// Both kinds begin with a number: 0, or a reason that is negative.
int reason_in(const netlink_message &acknowledgement) {
  int reason = 0;
  return read_record(acknowledgement.payload, reason) ? -reason : EBADMSG;
}

int give_order(int socket, netlink_request &request) {
  return exchange(socket, request, [](const netlink_message &) {});
}

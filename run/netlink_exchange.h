// A netlink socket for questions and orders: one request, then its answers up to the kernel's acknowledgement.
#pragma once

#include "assist/netlink_reader.h"
#include "run/netlink_request.h"

#include <cerrno>

// Opens a socket in the calling process's network namespace, where it stays when the process moves. -1 with errno.
int open_netlink(int protocol);

// The same in another namespace.
int open_netlink_inside(int network_namespace, int protocol);

// Sends the request. Returns 0 or the reason as in errno.
int send_request(int socket, netlink_request &request);

// Waits for the next datagram of the kernel's answer; the kernel answers while it takes the request, so this waits for
// nobody else. The bytes are valid until the next call. Returns 0 or the reason.
int receive_answer(int socket, netlink_bytes &answer);

// Reads what an acknowledgement says: 0 or the kernel's reason. Also for the end of a dump.
int reason_in(const netlink_message &acknowledgement);

// Hands every message of the answer to `take`. Returns 0, or the reason for which the kernel refused the request.
template <typename taker> int exchange(int socket, netlink_request &request, taker take) {
  int reason = send_request(socket, request);
  while (reason == 0) {
    netlink_bytes rest;
    reason = receive_answer(socket, rest);
    for (netlink_message message; reason == 0 && next_message(rest, message);) {
      if (message.type == NLMSG_ERROR || message.type == NLMSG_DONE) {
        return reason_in(message);
      }
      take(message);
    }
  }
  return reason;
}

// For an order, whose only answer is the acknowledgement.
int give_order(int socket, netlink_request &request);

#include "companion_kernel.h"

#include "tests/unit/assist/netlink_bytes.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
// After netinet/in.h, which knows how to share its records with the kernel's headers.
#include <linux/mroute6.h>
#include <netinet/icmp6.h>
#include <sstream>
#include <sys/socket.h>
#include <time.h>

scripted_kernel Kernel;

namespace {

const std::string prefix = "tarnwick-assist: ";

std::string option_name(int level, int option) {
  if (level == IPPROTO_IPV6) {
    switch (option) {
    case IPV6_ADD_MEMBERSHIP:
      return "IPV6_ADD_MEMBERSHIP";
    case IPV6_DROP_MEMBERSHIP:
      return "IPV6_DROP_MEMBERSHIP";
    case MRT6_ADD_MFC:
      return "MRT6_ADD_MFC";
    case MRT6_DEL_MFC:
      return "MRT6_DEL_MFC";
    }
  }
  if (level == SOL_NETLINK && option == NETLINK_ADD_MEMBERSHIP) {
    return "NETLINK_ADD_MEMBERSHIP";
  }
  if (level == IPPROTO_ICMPV6 && option == ICMP6_FILTER) {
    return "ICMP6_FILTER";
  }
  return std::to_string(level) + "/" + std::to_string(option);
}

std::string address_text(const in6_addr &address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, &address, text, sizeof(text));
}

std::string value_text(const void *value, socklen_t length) {
  if (length == sizeof(ipv6_mreq)) {
    ipv6_mreq request;
    std::memcpy(&request, value, sizeof(request));
    return " " + address_text(request.ipv6mr_multiaddr) + " " + std::to_string(request.ipv6mr_interface);
  }
  if (length == sizeof(mf6cctl)) {
    mf6cctl request;
    std::memcpy(&request, value, sizeof(request));
    std::string text = " " + address_text(request.mf6cc_origin.sin6_addr) + " " +
                       address_text(request.mf6cc_mcastgrp.sin6_addr) + " parent " +
                       std::to_string(request.mf6cc_parent) + " to";
    for (unsigned mif = 0; mif < IF_SETSIZE; ++mif) {
      if (IF_ISSET(mif, &request.mf6cc_ifset)) {
        text += " " + std::to_string(mif);
      }
    }
    return text;
  }
  if (length == sizeof(int)) {
    int number;
    std::memcpy(&number, value, sizeof(number));
    return " " + std::to_string(number);
  }
  return length == 0 ? " (nothing)" : "";
}

// Whether the script refuses the call; errno is set then.
bool is_refused(const std::string &call) {
  std::deque<int> &script = Kernel.refusals[call];
  if (script.empty()) {
    return false;
  }
  errno = script.front();
  script.pop_front();
  return errno != 0;
}

void answer_netconf_question(const std::vector<std::byte> &question) {
  std::uint32_t index;
  std::memcpy(&index, question.data() + question.size() - sizeof(index), sizeof(index));
  const auto answer = Kernel.mc_forwarding.find(index);
  Kernel.datagrams.push_front(
      {answer == Kernel.mc_forwarding.end() ? error_message(ENODEV) : netconf_message(index, answer->second)});
}

lines split(const std::string &text) {
  lines found;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    EXPECT_EQ(line.substr(0, prefix.size()), prefix);
    found.push_back(line.substr(std::min(prefix.size(), line.size())));
  }
  return found;
}

} // namespace

extern "C" {

int __wrap_setsockopt(int socket, int level, int option, const void *value, socklen_t length);
int __wrap_socket(int family, int type, int protocol);
ssize_t __wrap_send(int socket, const void *bytes, size_t length, int flags);
ssize_t __wrap_recvfrom(int socket, void *bytes, size_t length, int flags, sockaddr *sender, socklen_t *sender_length);
unsigned __wrap_if_nametoindex(const char *name);
int __wrap_clock_gettime(clockid_t clock, timespec *now);

int __wrap_setsockopt(int, int level, int option, const void *value, socklen_t length) {
  const std::string name = option_name(level, option);
  Kernel.requests.push_back(name + value_text(value, length));
  return is_refused(name) ? -1 : 0;
}

// A real descriptor, so that closing it is real, too.
int __wrap_socket(int family, int, int) {
  const std::string name = family == AF_NETLINK ? "socket AF_NETLINK" : "socket AF_INET6";
  return is_refused(name) ? -1 : open("/dev/null", O_RDWR | O_CLOEXEC);
}

ssize_t __wrap_send(int, const void *bytes, size_t length, int) {
  if (is_refused("send")) {
    return -1;
  }
  const std::byte *first = static_cast<const std::byte *>(bytes);
  Kernel.sent.emplace_back(first, first + length);
  answer_netconf_question(Kernel.sent.back());
  return static_cast<ssize_t>(length);
}

ssize_t __wrap_recvfrom(int, void *bytes, size_t length, int, sockaddr *sender, socklen_t *sender_length) {
  if (Kernel.datagrams.empty()) {
    errno = EAGAIN;
    return -1;
  }
  const scripted_datagram datagram = Kernel.datagrams.front();
  Kernel.datagrams.pop_front();
  if (datagram.then) {
    datagram.then();
  }
  if (datagram.reason != 0) {
    errno = datagram.reason;
    return -1;
  }
  const sockaddr_nl from{AF_NETLINK, 0, datagram.sender, 0};
  std::memcpy(sender, &from, sizeof(from));
  *sender_length = sizeof(from);
  std::memcpy(bytes, datagram.bytes.data(), std::min(length, datagram.bytes.size()));
  return static_cast<ssize_t>(datagram.bytes.size());
}

unsigned __wrap_if_nametoindex(const char *name) {
  const auto found = Kernel.indexes.find(name);
  return found == Kernel.indexes.end() ? 0 : found->second;
}

int __wrap_clock_gettime(clockid_t, timespec *now) {
  *now = {static_cast<time_t>(Kernel.now_ms / 1000), static_cast<long>(Kernel.now_ms % 1000 * 1'000'000)};
  return 0;
}

} // extern "C"

void companion_fixture::SetUp() {
  Kernel = {};
  testing::internal::CaptureStderr();
}

void companion_fixture::TearDown() {
  EXPECT_EQ(requests(), lines{});
  EXPECT_EQ(split(testing::internal::GetCapturedStderr()), lines{});
}

lines companion_fixture::requests() { return std::exchange(Kernel.requests, {}); }

lines companion_fixture::said() {
  const std::string text = testing::internal::GetCapturedStderr();
  testing::internal::CaptureStderr();
  return split(text);
}

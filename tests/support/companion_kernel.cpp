#include "companion_kernel.h"

#include "tests/unit/assist/netlink_bytes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
// After netinet/in.h, which keeps the kernel's headers from defining the same records again.
#include <linux/mroute6.h>
#include <netinet/icmp6.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>

scripted_kernel Kernel;

namespace {

const std::string prefix = "tarnwick-assist: ";

unsigned connected_to = 0; // interface index

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
    case MRT6_ADD_MFC_PROXY:
      return "MRT6_ADD_MFC_PROXY";
    case MRT6_DEL_MFC_PROXY:
      return "MRT6_DEL_MFC_PROXY";
    case IPV6_RECVPKTINFO:
      return "IPV6_RECVPKTINFO";
    case IPV6_RECVHOPLIMIT:
      return "IPV6_RECVHOPLIMIT";
    case IPV6_RECVHOPOPTS:
      return "IPV6_RECVHOPOPTS";
    case IPV6_HOPOPTS:
      return "IPV6_HOPOPTS";
    case IPV6_MULTICAST_HOPS:
      return "IPV6_MULTICAST_HOPS";
    case IPV6_MULTICAST_LOOP:
      return "IPV6_MULTICAST_LOOP";
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

std::string hex_text(const std::uint8_t *bytes, std::size_t length) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    text += i % 2 == 0 ? " " : "";
    text += {digits[bytes[i] >> 4], digits[bytes[i] & 0x0f]};
  }
  return text;
}

std::string to_text(const in6_addr &address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, &address, text, sizeof(text));
}

// The types that an ICMPv6 filter passes, of those that matter to the programs.
std::string filter_text(const icmp6_filter &filter) {
  std::string text = " lets in";
  for (int type = 0; type < 256; ++type) {
    text += ICMP6_FILTER_WILLPASS(type, &filter) ? " " + std::to_string(type) : "";
  }
  return text;
}

std::string value_text(const void *value, socklen_t length) {
  if (length == sizeof(ipv6_mreq)) {
    ipv6_mreq request;
    std::memcpy(&request, value, sizeof(request));
    return " " + to_text(request.ipv6mr_multiaddr) + " " + std::to_string(request.ipv6mr_interface);
  }
  if (length == sizeof(mf6cctl)) {
    mf6cctl request;
    std::memcpy(&request, value, sizeof(request));
    std::string text = " " + to_text(request.mf6cc_origin.sin6_addr) + " " + to_text(request.mf6cc_mcastgrp.sin6_addr) +
                       " parent " + std::to_string(request.mf6cc_parent) + " to";
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
  if (length == sizeof(icmp6_filter)) {
    icmp6_filter filter;
    std::memcpy(&filter, value, sizeof(filter));
    return filter_text(filter);
  }
  return length == 0 ? " (nothing)" : hex_text(static_cast<const std::uint8_t *>(value), length);
}

// Whether the script refuses the call; errno is set then.
bool is_refused(const std::string &call) {
  ++Kernel.calls;
  const planned_failure &planned = Kernel.failures;
  if (planned.is_armed && (Kernel.calls == planned.number || (planned.fails_rest && Kernel.calls > planned.number))) {
    errno = planned.reason;
    return true;
  }
  std::deque<int> &script = Kernel.refusals[call];
  if (script.empty()) {
    return false;
  }
  errno = script.front();
  script.pop_front();
  return errno != 0;
}

std::uint16_t type_of_question(const std::vector<std::byte> &question) {
  nlmsghdr header;
  std::memcpy(&header, question.data(), sizeof(header));
  return header.nlmsg_type;
}

// A table comes in parts, and then nothing is left to read.
void answer_table_question() {
  Kernel.datagrams.push_front({{}, EAGAIN});
  if (!Kernel.routes.empty()) {
    Kernel.datagrams.push_front({Kernel.routes});
  }
}

void answer_netconf_question(const std::vector<std::byte> &question) {
  std::uint32_t index;
  std::memcpy(&index, question.data() + question.size() - sizeof(index), sizeof(index));
  const auto answer = Kernel.mc_forwarding.find(index);
  Kernel.datagrams.push_front(
      {answer == Kernel.mc_forwarding.end() ? error_message(ENODEV) : netconf_message(index, answer->second)});
}

template <typename type> void append_control(msghdr &header, int kind, const type *value, std::size_t length) {
  void *place = static_cast<std::byte *>(header.msg_control) + header.msg_controllen;
  auto *control = static_cast<cmsghdr *>(place);
  control->cmsg_len = CMSG_LEN(length);
  control->cmsg_level = IPPROTO_IPV6;
  control->cmsg_type = kind;
  std::memcpy(CMSG_DATA(control), value, length);
  header.msg_controllen += CMSG_SPACE(length);
}

in6_addr to_address(const std::string &text) {
  in6_addr address;
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &address), 1) << text;
  return address;
}

// In the order in which the kernel gives them (ip6_datagram_recv_specific_ctl in net/ipv6/datagram.c).
void write_controls(const scripted_mld &message, msghdr &header) {
  ASSERT_GE(header.msg_controllen,
            CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(int)) + CMSG_SPACE(message.hop_by_hop.size()));
  header.msg_controllen = 0;
  const in6_pktinfo info{to_address(message.destination), message.index};
  append_control(header, IPV6_PKTINFO, &info, sizeof(info));
  append_control(header, IPV6_HOPLIMIT, &message.hop_limit, sizeof(message.hop_limit));
  if (!message.hop_by_hop.empty()) {
    append_control(header, IPV6_HOPOPTS, message.hop_by_hop.data(), message.hop_by_hop.size());
  }
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
ssize_t __wrap_recvmsg(int socket, msghdr *header, int flags);
ssize_t __wrap_sendmsg(int socket, const msghdr *header, int flags);
int __wrap_connect(int socket, const sockaddr *address, socklen_t length);
int __wrap_getsockname(int socket, sockaddr *address, socklen_t *length);
int __wrap_ioctl(int socket, unsigned long request, void *argument);
unsigned __wrap_if_nametoindex(const char *name);
int __wrap_clock_gettime(clockid_t clock, timespec *now);

int __wrap_setsockopt(int, int level, int option, const void *value, socklen_t length) {
  const std::string name = option_name(level, option);
  Kernel.requests.push_back(name + value_text(value, length));
  return is_refused(name) ? -1 : 0;
}

// A real descriptor, so that closing it is real, too.
int __wrap_socket(int family, int type, int) {
  const std::string name = family == AF_NETLINK                   ? "socket AF_NETLINK"
                           : (type & ~SOCK_CLOEXEC) == SOCK_DGRAM ? "socket SOCK_DGRAM"
                                                                  : "socket AF_INET6";
  return is_refused(name) ? -1 : open("/dev/null", O_RDWR | O_CLOEXEC);
}

ssize_t __wrap_send(int, const void *bytes, size_t length, int) {
  if (is_refused("send")) {
    return -1;
  }
  const std::byte *first = static_cast<const std::byte *>(bytes);
  Kernel.sent.emplace_back(first, first + length);
  if (type_of_question(Kernel.sent.back()) == RTM_GETROUTE) {
    answer_table_question();
  } else {
    answer_netconf_question(Kernel.sent.back());
  }
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

ssize_t __wrap_recvmsg(int, msghdr *header, int flags) {
  EXPECT_EQ(flags, MSG_DONTWAIT);
  if (Kernel.mld.empty()) {
    errno = EAGAIN;
    return -1;
  }
  const scripted_mld message = Kernel.mld.front();
  Kernel.mld.pop_front();
  if (message.then) {
    message.then();
  }
  if (message.reason != 0) {
    errno = message.reason;
    return -1;
  }
  sockaddr_in6 from{};
  from.sin6_family = AF_INET6;
  from.sin6_addr = to_address(message.sender);
  std::memcpy(header->msg_name, &from, sizeof(from));
  header->msg_namelen = sizeof(from);
  const std::size_t length = std::min(header->msg_iov[0].iov_len, message.bytes.size());
  std::copy_n(message.bytes.data(), length, static_cast<std::uint8_t *>(header->msg_iov[0].iov_base));
  write_controls(message, *header);
  return static_cast<ssize_t>(length);
}

// Noted as "query GROUP from SOURCE to DESTINATION on INDEX in MS ms".
ssize_t __wrap_sendmsg(int socket, const msghdr *header, int flags) {
  EXPECT_EQ(socket, MLD_SOCKET);
  EXPECT_EQ(flags, MSG_DONTWAIT);
  EXPECT_EQ(header->msg_iovlen, 1U);
  const std::uint8_t *first = static_cast<const std::uint8_t *>(header->msg_iov[0].iov_base);
  const std::vector<std::uint8_t> bytes(first, first + header->msg_iov[0].iov_len);
  sockaddr_in6 to;
  std::memcpy(&to, header->msg_name, sizeof(to));
  const cmsghdr *control = CMSG_FIRSTHDR(header);
  in6_pktinfo from{};
  if (control != nullptr && control->cmsg_level == IPPROTO_IPV6 && control->cmsg_type == IPV6_PKTINFO) {
    std::memcpy(&from, CMSG_DATA(control), sizeof(from));
  }
  EXPECT_EQ(to.sin6_scope_id, from.ipi6_ifindex);
  in6_addr group;
  std::memcpy(&group, bytes.data() + 8, sizeof(group));
  Kernel.requests.push_back("query " + to_text(group) + " from " + to_text(from.ipi6_addr) + " to " +
                            to_text(to.sin6_addr) + " on " + std::to_string(from.ipi6_ifindex) + " in " +
                            std::to_string(bytes[4] << 8 | bytes[5]) + " ms");
  if (is_refused("sendmsg")) {
    return -1;
  }
  Kernel.queries.push_back(bytes);
  return static_cast<ssize_t>(bytes.size());
}

int __wrap_connect(int, const sockaddr *address, socklen_t length) {
  sockaddr_in6 to{};
  std::memcpy(&to, address, std::min<std::size_t>(length, sizeof(to)));
  EXPECT_EQ(to_text(to.sin6_addr), "ff02::1");
  connected_to = to.sin6_scope_id;
  if (is_refused("connect")) {
    return -1;
  }
  if (Kernel.own_addresses.count(connected_to) == 0) {
    errno = EADDRNOTAVAIL;
    return -1;
  }
  return 0;
}

int __wrap_getsockname(int, sockaddr *address, socklen_t *length) {
  if (is_refused("getsockname")) {
    return -1;
  }
  sockaddr_in6 own{};
  own.sin6_family = AF_INET6;
  own.sin6_addr = to_address(Kernel.own_addresses[connected_to]);
  std::memcpy(address, &own, sizeof(own));
  *length = sizeof(own);
  return 0;
}

int __wrap_ioctl(int socket, unsigned long request, void *argument) {
  EXPECT_EQ(socket, ROUTING_SOCKET);
  EXPECT_EQ(request, static_cast<unsigned long>(SIOCGETSGCNT_IN6));
  sioc_sg_req6 asked;
  std::memcpy(&asked, argument, sizeof(asked));
  const std::string entry = to_text(asked.src.sin6_addr) + " " + to_text(asked.grp.sin6_addr);
  const bool is_there = !is_refused("SIOCGETSGCNT_IN6") &&
                        std::find(Kernel.entries.begin(), Kernel.entries.end(), entry) != Kernel.entries.end();
  errno = is_there ? errno : EADDRNOTAVAIL;
  return is_there ? 0 : -1;
}

unsigned __wrap_if_nametoindex(const char *name) {
  const auto found = Kernel.indexes.find(name);
  return found == Kernel.indexes.end() ? 0 : found->second;
}

int __wrap_clock_gettime(clockid_t clock, timespec *now) {
  if (clock == CLOCK_PROCESS_CPUTIME_ID) {
    *now = {static_cast<time_t>(Kernel.used_us / 1'000'000), static_cast<long>(Kernel.used_us % 1'000'000 * 1000)};
    return 0;
  }
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

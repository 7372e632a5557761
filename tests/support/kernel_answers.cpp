#include "kernel_answers.h"

#include "request_text.h"
#include "scripted_run.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

extern "C" FILE *__real_fopen(const char *, const char *);

namespace scripted {

namespace {

std::string PipeContents;
std::vector<FILE *> OpenTables; // the daemon leaves them open; closed between tests

sockaddr ipv4_socket_address(const std::string &text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, text.c_str(), &address.sin_addr);
  sockaddr generic;
  std::memcpy(&generic, &address, sizeof(generic));
  return generic;
}

int list_interfaces(ifconf *list) {
  std::size_t used = 0;
  for (const interface &one : Kernel.interfaces) {
    if (one.ipv4.empty() || (used + 1) * sizeof(ifreq) > static_cast<std::size_t>(list->ifc_len)) {
      continue;
    }
    ifreq entry{};
    std::memcpy(entry.ifr_name, one.name.c_str(), std::min<std::size_t>(one.name.size(), IFNAMSIZ - 1));
    entry.ifr_addr = ipv4_socket_address(one.ipv4);
    std::memcpy(list->ifc_buf + used * sizeof(ifreq), &entry, sizeof(entry));
    ++used;
  }
  list->ifc_len = static_cast<int>(used * sizeof(ifreq));
  return 0;
}

std::string if_inet6_contents() {
  if (Kernel.if_inet6) {
    return *Kernel.if_inet6;
  }
  std::string table;
  for (const interface &one : Kernel.interfaces) {
    in6_addr address;
    if (one.ipv6.empty() || inet_pton(AF_INET6, one.ipv6.c_str(), &address) != 1) {
      continue;
    }
    char rest[64];
    std::snprintf(rest, sizeof(rest), " %02x 40 20 80 %8s\n", static_cast<unsigned int>(one.index), one.name.c_str());
    table += hex_text(&address, sizeof(address)) + rest;
  }
  return table;
}

void append_control(msghdr *header, std::size_t &used, int level, int type, const void *data, std::size_t length) {
  if (used + CMSG_SPACE(length) > header->msg_controllen) {
    header->msg_flags |= MSG_CTRUNC;
    return;
  }
  cmsghdr control{};
  control.cmsg_len = CMSG_LEN(length);
  control.cmsg_level = level;
  control.cmsg_type = type;
  auto *at = static_cast<std::uint8_t *>(header->msg_control) + used;
  std::memcpy(at, &control, sizeof(control));
  std::memcpy(at + CMSG_LEN(0), data, length);
  used += CMSG_SPACE(length);
}

void fill_packet_information(const message &given, msghdr *header) {
  std::size_t used = 0;
  if (!given.control.empty()) {
    used = std::min<std::size_t>(given.control.size(), header->msg_controllen);
    std::memcpy(header->msg_control, given.control.data(), used);
    header->msg_controllen = used;
    return;
  }
  if (given.ifindex && given.destination.empty()) {
    in6_pktinfo info{};
    info.ipi6_ifindex = static_cast<unsigned int>(*given.ifindex);
    append_control(header, used, IPPROTO_IPV6, IPV6_PKTINFO, &info, sizeof(info));
  } else if (given.ifindex) {
    in_pktinfo info{};
    info.ipi_ifindex = *given.ifindex;
    inet_pton(AF_INET, given.destination.c_str(), &info.ipi_addr);
    append_control(header, used, IPPROTO_IP, IP_PKTINFO, &info, sizeof(info));
  }
  header->msg_controllen = used;
}

void fill_sender(const message &given, msghdr *header) {
  sockaddr_in6 sender6{};
  sockaddr_in sender4{};
  if (inet_pton(AF_INET6, given.sender.c_str(), &sender6.sin6_addr) == 1) {
    sender6.sin6_family = AF_INET6;
    std::memcpy(header->msg_name, &sender6, std::min<std::size_t>(sizeof(sender6), header->msg_namelen));
  } else if (inet_pton(AF_INET, given.sender.c_str(), &sender4.sin_addr) == 1) {
    sender4.sin_family = AF_INET;
    std::memcpy(header->msg_name, &sender4, std::min<std::size_t>(sizeof(sender4), header->msg_namelen));
  }
}

void raise_in_script(int signal_number) {
  const auto handler = Kernel.handlers.find(signal_number);
  if (handler != Kernel.handlers.end() && handler->second != SIG_IGN && handler->second != SIG_DFL) {
    handler->second(signal_number);
  } else if (!Kernel.may_wait_for_ever) {
    add_script_error("no handler for signal " + std::to_string(signal_number));
  }
}

} // namespace

const interface *find_interface(const std::string &name) {
  const auto found = std::find_if(Kernel.interfaces.begin(), Kernel.interfaces.end(),
                                  [&](const interface &one) { return one.name == name; });
  return found != Kernel.interfaces.end() ? &*found : nullptr;
}

int answer_ioctl(unsigned long number, void *argument) {
  if (number == SIOCGIFCONF) {
    return list_interfaces(static_cast<ifconf *>(argument));
  }
  if (number == SIOCDEVPRIVATE || number == SIOCDEVPRIVATE + 1) {
    return 0;
  }
  ifreq *asked = static_cast<ifreq *>(argument);
  const interface *found = find_interface(std::string(asked->ifr_name, strnlen(asked->ifr_name, IFNAMSIZ)));
  if (found == nullptr) {
    errno = ENODEV;
    return -1;
  }
  switch (number) {
  case SIOCGIFINDEX:
    asked->ifr_ifindex = found->index;
    return 0;
  case SIOCGIFFLAGS:
    asked->ifr_flags = static_cast<short>(found->flags);
    return 0;
  case SIOCGIFDSTADDR:
    asked->ifr_dstaddr = ipv4_socket_address(found->ipv4_peer);
    return 0;
  default:
    return 0;
  }
}

FILE *open_if_inet6() {
  static std::string contents; // outlives the stream, which the daemon leaves open
  contents = if_inet6_contents();
  FILE *table = contents.empty() ? __real_fopen("/dev/null", "r") : fmemopen(contents.data(), contents.size(), "r");
  OpenTables.push_back(table);
  return table;
}

ssize_t deliver_message(msghdr *header) {
  if (Kernel.messages.empty()) {
    report_endless_wait("recvmsg");
  }
  const message given = Kernel.messages.front();
  Kernel.messages.pop_front();
  if (given.error != 0) {
    errno = given.error;
    return -1;
  }
  const std::size_t length = std::min(given.bytes.size(), header->msg_iov->iov_len);
  std::copy_n(given.bytes.begin(), length, static_cast<std::uint8_t *>(header->msg_iov->iov_base));
  fill_sender(given, header);
  fill_packet_information(given, header);
  return static_cast<ssize_t>(length);
}

ssize_t read_pipe(void *buffer, std::size_t room) {
  while (PipeContents.empty()) {
    if (Kernel.signals_in_blocked_read.empty()) {
      report_endless_wait("a read of the empty pipe");
    }
    const int next = Kernel.signals_in_blocked_read.front();
    Kernel.signals_in_blocked_read.pop_front();
    raise_in_script(next);
  }
  const std::size_t length = std::min(room, PipeContents.size());
  std::memcpy(buffer, PipeContents.data(), length);
  PipeContents.erase(0, length);
  return static_cast<ssize_t>(length);
}

ssize_t write_pipe(const std::string &text) {
  PipeContents += text;
  return static_cast<ssize_t>(text.size());
}

int answer_select(fd_set *readable) {
  if (Kernel.wake_ups.empty()) {
    report_endless_wait("select");
  }
  const wake_up next = Kernel.wake_ups.front();
  Kernel.wake_ups.pop_front();
  for (const int signal_number : next.signals) {
    raise_in_script(signal_number);
  }
  if (next.result != -1 || !next.ready.empty()) {
    FD_ZERO(readable);
  }
  for (const int descriptor : next.ready) {
    FD_SET(descriptor, readable);
  }
  if (next.result == -1) {
    errno = next.error;
    return -1;
  }
  return next.result != 0 ? next.result : static_cast<int>(next.ready.size());
}

bool is_open_table(const FILE *stream) {
  return std::find(OpenTables.begin(), OpenTables.end(), stream) != OpenTables.end();
}

void forget_answers() {
  for (FILE *table : OpenTables) {
    std::fclose(table);
  }
  OpenTables.clear();
  PipeContents.clear();
}

} // namespace scripted

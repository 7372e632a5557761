#include "igmp/igmp_receive.h"

#include "core/log.h"
#include "igmp/igmp_interface.h"
#include "igmp/igmp_leave.h"
#include "igmp/igmp_report.h"
#include "igmp/igmp_wire.h"

#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>

#define READ_HERE IGMP_STEP_OF("igmp_network_socket_read_data")

namespace {

struct received_datagram {
  alignas(std::uint32_t) std::array<std::uint8_t, IGMP_DATAGRAM_BYTES> bytes; // with IP header, zeros behind what came
  int size;                                                                   // bytes that came
  std::uint32_t sender;
  in_pktinfo arrival;
};

std::uint32_t read_word(const std::uint8_t *bytes) {
  std::uint32_t word;
  std::memcpy(&word, bytes, sizeof(word));
  return word;
}

int ip_header_bytes(const received_datagram &datagram) {
  constexpr int length_nibble = 0x0f;
  constexpr int bytes_per_unit = 4;
  return (datagram.bytes[0] & length_nibble) * bytes_per_unit;
}

// Finds the packet information among the control messages; of several the last one counts. Returns whether there was
// one.
bool find_arrival(msghdr &header, in_pktinfo &arrival) {
  bool is_found = false;
  for (cmsghdr *control = CMSG_FIRSTHDR(&header); control != nullptr; control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_len == CMSG_LEN(sizeof(in_pktinfo)) && control->cmsg_level == IPPROTO_IP &&
        control->cmsg_type == IP_PKTINFO) {
      std::memcpy(&arrival, CMSG_DATA(control), sizeof(arrival));
      is_found = true;
    }
  }
  return is_found;
}

// Returns whether there is a datagram with a known arrival interface.
bool receive_datagram(received_datagram &datagram) {
  datagram.bytes.fill(0);
  sockaddr_storage name{};
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(in_pktinfo))> control{};
  iovec element{datagram.bytes.data(), datagram.bytes.size()};
  msghdr header{};
  header.msg_name = &name;
  header.msg_namelen = sizeof(name);
  header.msg_iov = &element;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t received = recvmsg(IgmpRouter.socket, &header, 0);
  if (received == -1) {
    log_error(READ_HERE, "Unable to read IGMP data.");
    return false;
  }
  datagram.size = static_cast<int>(received);
  sockaddr_in sender;
  std::memcpy(&sender, &name, sizeof(sender));
  datagram.sender = sender.sin_addr.s_addr;
  return find_arrival(header, datagram.arrival);
}

void log_arrival(const received_datagram &datagram) {
  const std::array<char, 16> sender = (my_inet_ntoa(&datagram.sender), MyInAddr); // the next text overwrites it
  log_information(READ_HERE, "Received packet src: %s, dst: %s, interface: %d", sender.data(),
                  my_inet_ntoa(&datagram.arrival.ipi_addr.s_addr), datagram.arrival.ipi_ifindex);
}

// Version 1 and 2 messages have eight bytes, version 3 queries twelve or more: what lies between is neither and is
// refused.
bool is_message_length(int length) {
  constexpr int v2_message = IGMP_MESSAGE_BYTES;
  constexpr int v3_query = 12;
  return length == v2_message || length >= v3_query;
}

void dump_ip_header(const received_datagram &datagram) {
  constexpr std::size_t bytes_per_line = 16;
  constexpr std::size_t bytes_per_block = 8;
  for (std::size_t i = 0; i < IP_HEADER_BYTES; ++i) {
    if (i % bytes_per_line == 0) {
      std::printf("\n0x%08x:  ", static_cast<unsigned int>(i));
    } else if (i % bytes_per_block == 0) {
      std::putchar(' ');
    }
    std::printf("%02hhx ", datagram.bytes[i]);
  }
  std::putchar('\n');
}

void dispatch(igmp_interface *intr, const received_datagram &datagram) {
  const std::uint8_t *message = &datagram.bytes[static_cast<std::size_t>(ip_header_bytes(datagram))];
  const std::uint32_t group = read_word(message + IGMP_GROUP_OFFSET);
  switch (message[0]) {
  case IGMP_MEMBERSHIP_QUERY:
    log_debug(READ_HERE, "Received Membership Query.");
    igmp_router_received_general_query(intr, read_word(&datagram.bytes[IP_SOURCE_OFFSET]));
    break;
  case IGMP_V1_REPORT:
    log_debug(READ_HERE, "Received Version 1 Membership Report.");
    igmp_router_version1_report_handler(intr, group);
    break;
  case IGMP_V2_REPORT:
    log_debug(READ_HERE, "Received Version 2 Membership Report.");
    igmp_router_version2_report_handler(intr, group);
    break;
  case IGMP_V2_LEAVE:
    log_debug(READ_HERE, "Received Leave Report.");
    igmp_router_leave_handler(intr, group);
    break;
  default:
    break;
  }
}

// Returns whether the datagram holds an IGMP message, after logging what else it is.
bool check_datagram(const received_datagram &datagram) {
  if (!is_message_length(datagram.size - ip_header_bytes(datagram))) {
    log_error(READ_HERE, "Rxed IGMP pkt:%d bytes is less than MIN length.", datagram.size);
    return false;
  }
  if (datagram.bytes[IP_PROTOCOL_OFFSET] != IPPROTO_IGMP) {
    // The kernel's notices of streams that nobody asked for come this way, too.
    dump_ip_header(datagram);
    log_debug(READ_HERE, "it is not igmp packet.");
    return false;
  }
  return true;
}

} // namespace

void igmp_network_socket_read_data() {
  received_datagram datagram;
  if (!receive_datagram(datagram)) {
    return;
  }
  log_arrival(datagram);
  const int ifindex = datagram.arrival.ipi_ifindex;
  const igmp_interface *upstream = IgmpRouter.upstream_interface;
  if (upstream != nullptr && ifindex == upstream->ifindex) {
    log_debug(READ_HERE, "Skip IGMP packet from upstream interface: %d.", ifindex);
    return;
  }
  igmp_interface *intr = igmp_find_interface(ifindex);
  if (intr == nullptr) {
    log_error(READ_HERE, "Unable to find interface: %d", ifindex);
    return;
  }
  if (check_datagram(datagram)) {
    dispatch(intr, datagram);
  }
}

void igmp_router_received_general_query(igmp_interface *intr, std::uint32_t sender) {
  ++intr->query_count;
  if (sender < intr->address) {
    log_debug(IGMP_HERE, "Received Query from %s on interface %s moving to NonQuerier.", my_inet_ntoa(&sender),
              intr->name.data());
    if (IgmpRouter.non_querier == 1) {
      intr->is_querier = 1;
      intr->other_querier_timer = 0;
    } else {
      intr->is_querier = 0;
      intr->query_timer = 0;
      intr->other_querier_timer = IgmpRouter.other_querier_interval;
    }
    return;
  }
  log_debug(IGMP_HERE, "Received Query from %s on interface %s but remain Querier.", my_inet_ntoa(&sender),
            intr->name.data());
  intr->other_querier_timer = 0;
}

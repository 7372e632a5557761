#include "mld/mld_receive.h"

#include "core/log.h"
#include "mld/mld_interface.h"
#include "mld/mld_v1_report.h"
#include "mld/mld_v2_report.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#define READ_HERE MLD_STEP_OF("mld_network_socket_read_data")

namespace {

struct received_message {
  std::array<std::uint8_t, MLD_MESSAGE_BYTES> bytes; // from the type byte on, zeros behind what came
  ipv6_address sender;
  std::uint32_t ifindex; // of arrival
};

// Finds the arrival interface among the control messages; of several the last one counts. Returns whether there was
// one.
bool find_arrival_interface(msghdr &header, std::uint32_t &ifindex) {
  bool is_found = false;
  for (cmsghdr *control = CMSG_FIRSTHDR(&header); control != nullptr; control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_len == CMSG_LEN(sizeof(in6_pktinfo)) && control->cmsg_level == IPPROTO_IPV6 &&
        control->cmsg_type == IPV6_PKTINFO) {
      in6_pktinfo info;
      std::memcpy(&info, CMSG_DATA(control), sizeof(info));
      ifindex = static_cast<std::uint32_t>(info.ipi6_ifindex);
      is_found = true;
    }
  }
  return is_found;
}

// Returns whether there is a message with a known arrival interface.
bool receive_message(received_message &message) {
  message.bytes.fill(0);
  sockaddr_storage name{};
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(in6_pktinfo))> control{};
  iovec element{message.bytes.data(), message.bytes.size()};
  msghdr header{};
  header.msg_name = &name;
  header.msg_namelen = sizeof(name);
  header.msg_iov = &element;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  if (recvmsg(MldRouter.socket, &header, 0) == -1) {
    log_error(READ_HERE, "MLD Unable to read MLD data.");
    return false;
  }
  sockaddr_in6 sender;
  std::memcpy(&sender, &name, sizeof(sender));
  message.sender = from_in6_addr(sender.sin6_addr);
  return find_arrival_interface(header, message.ifindex);
}

void dispatch(mld_interface *intr, received_message &message) {
  const std::uint8_t type = message.bytes[0];
  ipv6_address group;
  std::copy_n(&message.bytes[MLD_GROUP_OFFSET], group.size(), group.begin());
  switch (type) {
  case ICMPV6_MGM_QUERY:
    log_debug(READ_HERE, "[PACKET] icmp6_type: ICMPV6_MGM_QUERY");
    mld_router_received_general_query(intr, message.sender);
    break;
  case ICMPV6_MGM_REPORT:
    log_debug(READ_HERE, "[PACKET] icmp6_type: ICMPV6_MGM_REPORT");
    mld_router_version1_report_handler(intr, group);
    break;
  case ICMPV6_MGM_REDUCTION:
    // The socket's filter keeps these out already; an MLDv1 leaver is noticed when its group times out.
    log_debug(READ_HERE, "[PACKET] icmp6_type: ICMPV6_MGM_REDUCTION");
    break;
  case ICMPV6_MLD2_REPORT:
    log_debug(READ_HERE, "[PACKET] icmp6_type: ICMPV6_MLD2_REPORT");
    mld_router_version2_report_handler(intr, message.bytes, message.sender);
    break;
  case ICMPV6_ROUTER_ADVERTISEMENT:
    log_debug(READ_HERE, "Router advertisement, discard it!");
    break;
  default:
    log_debug(READ_HERE, "Unknown ICMPv6 type: %d.", type);
    break;
  }
}

} // namespace

void mld_network_socket_read_data() {
  received_message message;
  if (!receive_message(message)) {
    return;
  }
  mld_interface *upstream = MldRouter.upstream_interface;
  if (upstream != nullptr && message.ifindex == upstream->ifindex) {
    if (message.bytes[0] == ICMPV6_MGM_QUERY) {
      ++upstream->query_count;
    }
    return;
  }
  mld_interface *intr = mld_find_interface(message.ifindex);
  if (intr == nullptr) {
    return;
  }
  std::puts("\n\n");
  log_debug(READ_HERE, "[PACKET] host      : %s", ADDRESS_TEXT(message.sender));
  log_debug(READ_HERE, "[PACKET] intr      : %d", to_int32(message.ifindex));
  dispatch(intr, message);
}

void mld_router_received_general_query(mld_interface *intr, const ipv6_address &sender) {
  ++intr->query_count;
  if (sender < intr->link_local) {
    log_debug(MLD_HERE, "Received Query from %s on interface %s moving to NonQuerier.", ADDRESS_TEXT(sender),
              intr->name.data());
    if (MldRouter.non_querier == 1) {
      intr->is_querier = 1;
      intr->other_querier_timer = 0;
    } else {
      intr->is_querier = 0;
      intr->query_timer = 0;
      intr->other_querier_timer = to_int32(MldRouter.other_querier_interval);
    }
    return;
  }
  log_debug(MLD_HERE, "Received Query from %s on interface %s but remain Querier.", ADDRESS_TEXT(sender),
            intr->name.data());
  intr->other_querier_timer = 0;
}

#include "assist/membership.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr ipv6_address all_mldv2_routers{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x16};

bool request_membership(int socket, int option, const ipv6_address &group, std::uint32_t index) {
  ipv6_mreq request{};
  request.ipv6mr_multiaddr = to_in6_addr(group);
  request.ipv6mr_interface = index;
  return setsockopt(socket, IPPROTO_IPV6, option, &request, sizeof(request)) == 0;
}

} // namespace

bool join_group(int socket, const ipv6_address &group, std::uint32_t index) {
  return request_membership(socket, IPV6_ADD_MEMBERSHIP, group, index);
}

void leave_group(int socket, const ipv6_address &group, std::uint32_t index) {
  request_membership(socket, IPV6_DROP_MEMBERSHIP, group, index);
}

bool join_report_group(int socket, std::uint32_t index) {
  // The socket goes on counting as a member after its interface was deleted, while the interface that has come in its
  // place under the same index knows nothing of it.
  leave_report_group(socket, index);
  return join_group(socket, all_mldv2_routers, index);
}

void leave_report_group(int socket, std::uint32_t index) { leave_group(socket, all_mldv2_routers, index); }

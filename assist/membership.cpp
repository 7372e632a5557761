#include "assist/membership.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr in6_addr all_mldv2_routers{{{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x16}}};

bool request_membership(int socket, int option, std::uint32_t index) {
  ipv6_mreq request{};
  request.ipv6mr_multiaddr = all_mldv2_routers;
  request.ipv6mr_interface = index;
  return setsockopt(socket, IPPROTO_IPV6, option, &request, sizeof(request)) == 0;
}

} // namespace

bool join_report_group(int socket, std::uint32_t index) {
  // The socket goes on counting as a member after its interface was deleted, while the interface that has come in its
  // place under the same index knows nothing of it.
  leave_report_group(socket, index);
  return request_membership(socket, IPV6_ADD_MEMBERSHIP, index);
}

void leave_report_group(int socket, std::uint32_t index) { request_membership(socket, IPV6_DROP_MEMBERSHIP, index); }

#include "assist/query.h"

#include "mld/mld_wire.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr ipv6_address all_nodes{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
constexpr std::uint16_t discard_port = 9; // RFC 863; nothing is sent there

constexpr std::size_t query_bytes = 28;
constexpr std::size_t max_response_at = 4;
constexpr std::size_t robustness_at = 24;
constexpr std::size_t interval_at = 25;
constexpr std::uint8_t robustness = 2; // S clear
constexpr std::uint8_t query_interval_s = 125;

using query_message = std::array<std::uint8_t, query_bytes>;

// The kernel fills in the checksum.
query_message make_query(const ipv6_address &group, std::uint16_t max_response_ms) {
  query_message bytes{};
  bytes[0] = ICMPV6_MGM_QUERY;
  write_u16(&bytes[max_response_at], max_response_ms);
  std::copy(group.begin(), group.end(), &bytes[MLD_GROUP_OFFSET]);
  bytes[robustness_at] = robustness;
  bytes[interval_at] = query_interval_s;
  return bytes;
}

sockaddr_in6 to_link_address(const ipv6_address &address, std::uint32_t index, std::uint16_t port) {
  sockaddr_in6 full{};
  full.sin6_family = AF_INET6;
  full.sin6_port = htons(port);
  full.sin6_addr = to_in6_addr(address);
  full.sin6_scope_id = index;
  return full;
}

// The address that the kernel would send from to all nodes. Left to itself it would also take another scope or ::, and
// a query from :: would win every election.
bool find_link_local(std::uint32_t index, in6_addr &own) {
  const int asked = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in6 all = to_link_address(all_nodes, index, discard_port);
  sockaddr_in6 chosen{};
  socklen_t length = sizeof(chosen);
  const bool is_chosen = asked >= 0 && connect(asked, reinterpret_cast<const sockaddr *>(&all), sizeof(all)) == 0 &&
                         getsockname(asked, reinterpret_cast<sockaddr *>(&chosen), &length) == 0;
  const int reason = errno;
  if (asked >= 0) {
    close(asked);
  }
  errno = is_chosen ? EADDRNOTAVAIL : reason;
  own = chosen.sin6_addr;
  return is_chosen && IN6_IS_ADDR_LINKLOCAL(&own);
}

} // namespace

bool send_query(int socket, std::uint32_t index, const ipv6_address &group, std::uint16_t max_response_ms) {
  in6_pktinfo from{};
  from.ipi6_ifindex = index;
  if (!find_link_local(index, from.ipi6_addr)) {
    return false;
  }
  query_message bytes = make_query(group, max_response_ms);
  sockaddr_in6 to = to_link_address(group == In6AddrAny ? all_nodes : group, index, 0);
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(from))> control{};
  iovec element{bytes.data(), bytes.size()};
  msghdr header{};
  header.msg_name = &to;
  header.msg_namelen = sizeof(to);
  header.msg_iov = &element;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  cmsghdr *source = CMSG_FIRSTHDR(&header);
  source->cmsg_level = IPPROTO_IPV6;
  source->cmsg_type = IPV6_PKTINFO;
  source->cmsg_len = CMSG_LEN(sizeof(from));
  std::memcpy(CMSG_DATA(source), &from, sizeof(from));
  return sendmsg(socket, &header, MSG_DONTWAIT) == static_cast<ssize_t>(bytes.size());
}

#include "igmp/igmp_query.h"

#include "core/log.h"
#include "igmp/igmp_wire.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using igmp_message = std::array<std::uint8_t, IGMP_MESSAGE_BYTES>;

// Internet checksum (RFC 1071) of a message whose checksum field is zero, over native 16-bit words. The carry is folded
// once only: the query for a group whose sum then carries again, fewer than one in 300,000, is refused by its hosts.
std::uint16_t checksum(const igmp_message &message) {
  std::array<std::uint16_t, IGMP_MESSAGE_BYTES / sizeof(std::uint16_t)> words;
  std::memcpy(words.data(), message.data(), message.size());
  std::uint32_t sum = 0;
  for (const std::uint16_t word : words) {
    sum += word;
  }
  sum = (sum >> 16) + (sum & 0xffff);
  return static_cast<std::uint16_t>(~sum);
}

igmp_message make_query(std::uint8_t max_resp, std::uint32_t group) {
  igmp_message message{};
  message[0] = IGMP_MEMBERSHIP_QUERY;
  message[IGMP_MAX_RESPONSE_OFFSET] = max_resp;
  std::memcpy(&message[IGMP_GROUP_OFFSET], &group, sizeof(group));
  const std::uint16_t sum = checksum(message);
  std::memcpy(&message[IGMP_CHECKSUM_OFFSET], &sum, sizeof(sum));
  return message;
}

} // namespace

void igmp_router_send_query(const igmp_interface *intr, std::uint8_t max_resp, std::uint32_t group) {
  if (intr->is_querier == 0) {
    return;
  }
  const igmp_message message = make_query(max_resp, group);
  sockaddr_in destination{};
  destination.sin_family = AF_INET;
  destination.sin_addr.s_addr = group != InAddrAny ? group : IgmpAllHosts;
  if (sendto(intr->socket, message.data(), message.size(), 0, reinterpret_cast<const sockaddr *>(&destination),
             sizeof(destination)) < 0) {
    log_error(IGMP_HERE, "Unable to send query ErrorNumber:%d.", errno);
  }
}

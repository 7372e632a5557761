#include "mld/mld_query.h"

#include "core/memory.h"
#include "mld/mld_group.h"
#include "mld/mld_options.h"
#include "mld/mld_query_frame.h"
#include "mld/mld_retransmission.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <unistd.h>

#define SEND_QUERY_HERE MLD_STEP_OF("mld_router_v2_send_query")
#define MORE_SRC_HERE MLD_STEP_OF("mld_router_v2_send_query_more_src")

static_assert(sizeof(sockaddr_ll) == 20);

namespace {

constexpr char cannot_create_socket[] = "Can't create socket to send query!";
constexpr char cannot_allocate[] = "Unable to allocate memory for MLD query.";
constexpr char cannot_send[] = "[QUERY] Unable to send query.";

// A packet socket and a zeroed frame, made for one query.
struct query_sender {
  int packet_socket;
  std::span<std::uint8_t> frame;
};

// Opens the packet socket and allocates a frame with room for `source_room` sources. Returns false after logging for
// `site`; when memory ran out the socket stays open.
bool open_sender(log_site site, const mld_interface *intr, std::size_t source_room, query_sender &sender) {
  // The protocol number goes in as it is, in host order; kept for compatibility.
  sender.packet_socket = socket(AF_PACKET, SOCK_RAW, IPPROTO_ICMPV6);
  if (sender.packet_socket < 0) {
    log_error(site, cannot_create_socket);
    return false;
  }
  const int ifindex = to_int32(intr->ifindex);
  setsockopt(intr->socket, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifindex, sizeof(ifindex));
  const std::size_t size = MLD_QUERY_FRAME_BYTES + source_room * IPV6_ADDRESS_BYTES;
  auto *bytes = static_cast<std::uint8_t *>(my_malloc(size));
  if (bytes == nullptr) {
    log_error(site, cannot_allocate);
    return false;
  }
  std::fill_n(bytes, size, std::uint8_t{0});
  sender.frame = std::span<std::uint8_t>(bytes, size);
  return true;
}

void close_sender(const query_sender &sender) {
  my_free(sender.frame.data());
  close(sender.packet_socket);
}

void send_frame(log_site site, const mld_interface *intr, const query_sender &sender, const ipv6_address &group,
                std::size_t source_count) {
  const std::span<const std::uint8_t> frame = mld_finish_query_frame(sender.frame, source_count);
  const mac_address destination = mld_query_destination(group);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = IPPROTO_ICMPV6; // host order
  address.sll_ifindex = to_int32(intr->ifindex);
  address.sll_hatype = ARPHRD_ETHER;
  address.sll_pkttype = PACKET_MULTICAST;
  address.sll_halen = static_cast<unsigned char>(destination.size());
  std::copy(destination.begin(), destination.end(), address.sll_addr);
  if (sendto(sender.packet_socket, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr *>(&address),
             sizeof(address)) < 0) {
    log_error(site, cannot_send);
  }
}

// Returns whether the proxy is querier on the interface.
bool check_querier(log_site site, const mld_interface *intr) {
  if (intr->is_querier == 0) {
    log_debug(site, "No a querier on %s", intr->name.data());
    return false;
  }
  return true;
}

// Lists the expired sources in the frame. Returns their number, or 0 as well when an any-source slot is among them:
// then the query goes out for the whole group, by itself.
std::size_t list_expired_sources(const mld_interface *intr, mld_group *group, const mld_query *query,
                                 const query_sender &sender, bool &is_group_query) {
  std::size_t listed = 0;
  for (const mld_source &slot : mld_sources(group)) {
    if (slot.source_timer > 0) {
      continue;
    }
    if (slot.address == In6AddrAny) {
      log_debug(MORE_SRC_HERE, "Specific Multicast with Any-Source query, call mld_router_v2_send_query()");
      mld_router_v2_send_query(intr, static_cast<std::uint8_t>(query->max_resp), query->group);
      is_group_query = true;
      return 0;
    }
    mld_write_query_source(sender.frame, listed++, slot.address);
  }
  return listed;
}

void send_source_query(const mld_interface *intr, mld_group *group, const mld_query *query,
                       const query_sender &sender) {
  bool is_group_query = false;
  const std::size_t listed = list_expired_sources(intr, group, query, sender, is_group_query);
  if (is_group_query) {
    return;
  }
  if (listed == 0) {
    log_debug(MORE_SRC_HERE, "No source address need to query");
    return;
  }
  send_frame(MORE_SRC_HERE, intr, sender, query->group, listed);
  log_debug(MORE_SRC_HERE, "[QUERY] group:  %s", ADDRESS_TEXT(query->group));
  for (const mld_source &slot : mld_sources(group)) {
    if (slot.source_timer <= 0) {
      log_debug(MORE_SRC_HERE, "[QUERY] source: %s", ADDRESS_TEXT(slot.address));
    }
  }
}

void send_pending_query(const mld_interface *intr, mld_group *group, const mld_query *query) {
  if (!check_querier(MORE_SRC_HERE, intr)) {
    return;
  }
  query_sender sender;
  if (!open_sender(MORE_SRC_HERE, intr, mld_sources(group).size(), sender)) {
    return;
  }
  mld_fill_query_frame(sender.frame, query->group, intr->link_local);
  send_source_query(intr, group, query, sender);
  close_sender(sender);
}

} // namespace

void mld_router_v2_send_query(const mld_interface *intr, std::uint8_t, const ipv6_address &group) {
  query_sender sender;
  if (!check_querier(SEND_QUERY_HERE, intr) || !open_sender(SEND_QUERY_HERE, intr, 0, sender)) {
    return;
  }
  mld_fill_query_frame(sender.frame, group, intr->link_local);
  send_frame(SEND_QUERY_HERE, intr, sender, group, 0);
  log_debug(SEND_QUERY_HERE, "[QUERY] group: %s", ADDRESS_TEXT(group));
  close_sender(sender);
}

mld_group *mld_router_v2_send_query_more_src(mld_interface *intr, mld_group *group) {
  mld_group *following = list_after(group);
  const bool is_suppressed = mld_has_lasting_any_source(group);
  mld_query *query = list_pop<mld_query>(&group->queries);
  if (query == nullptr) {
    return mld_router_retransmit_timer_expired(intr, group, is_suppressed);
  }
  send_pending_query(intr, group, query);
  list_add(&MldRouter.free_queries, &query->link);
  group->retransmit_timer =
      list_get_head(&group->queries) == nullptr ? MLD_LAST_ANSWER_S : to_int32(MldRouter.last_member_query_interval);
  return following;
}

#include "bench/floor/floor_proxy.h"

#include "bench/network.h"

#include <algorithm>
#include <cstring>
#include <linux/if_packet.h>
#include <linux/mroute6.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr ipv6_address mldv2_routers{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x16};

template <typename record> int request(int socket, int option, const record &value) {
  return setsockopt(socket, IPPROTO_IPV6, option, &value, sizeof(value));
}

template <typename record> void demand(int socket, int option, const record &value, const char *name) {
  if (request(socket, option, value) == -1) {
    give_up(name);
  }
}

int open_icmp6_socket() {
  const int opened = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
  if (opened < 0) {
    give_up("raw ICMPv6 socket");
  }
  return opened;
}

void add_mif(int socket, std::uint32_t ifindex) {
  mif6ctl mif{};
  mif.mif6c_mifi = static_cast<mifi_t>(ifindex);
  mif.mif6c_pifi = static_cast<std::uint16_t>(ifindex);
  demand(socket, MRT6_ADD_MIF, mif, "MRT6_ADD_MIF");
}

void write_address(sockaddr_storage &storage, const ipv6_address &address) {
  sockaddr_in6 written{};
  written.sin6_family = AF_INET6;
  written.sin6_addr = to_in6_addr(address);
  std::memcpy(&storage, &written, sizeof(written));
}

int request_source(const floor_proxy &proxy, int option, const ipv6_address &group, const ipv6_address &source) {
  group_source_req wanted{};
  wanted.gsr_interface = proxy.upstream;
  write_address(wanted.gsr_group, group);
  write_address(wanted.gsr_source, source);
  return request(proxy.upstream_socket, option, wanted);
}

int request_group(const floor_proxy &proxy, int option, const ipv6_address &group) {
  ipv6_mreq wanted{};
  wanted.ipv6mr_multiaddr = to_in6_addr(group);
  wanted.ipv6mr_interface = proxy.upstream;
  return request(proxy.upstream_socket, option, wanted);
}

mf6cctl entry_of(std::uint32_t parent, const ipv6_address &origin, const ipv6_address &group, std::uint32_t output) {
  mf6cctl entry{};
  entry.mf6cc_origin.sin6_addr = to_in6_addr(origin);
  entry.mf6cc_mcastgrp.sin6_addr = to_in6_addr(group);
  entry.mf6cc_parent = static_cast<mifi_t>(parent);
  entry.mf6cc_ifset.ifs_bits[0] = std::uint32_t{1} << output;
  return entry;
}

} // namespace

floor_proxy floor_open(const char *upstream, const char *downstream) {
  floor_proxy proxy{open_icmp6_socket(), open_icmp6_socket(), open_icmp6_socket(), if_nametoindex(upstream),
                    if_nametoindex(downstream)};
  demand(proxy.router_socket, MRT6_INIT, 1, "MRT6_INIT");
  demand(proxy.router_socket, IPV6_RECVPKTINFO, 1, "IPV6_RECVPKTINFO");
  icmp6_filter filter;
  ICMP6_FILTER_SETBLOCKALL(&filter);
  ICMP6_FILTER_SETPASS(MLD_LISTENER_QUERY, &filter);
  ICMP6_FILTER_SETPASS(MLD_LISTENER_REPORT, &filter);
  ICMP6_FILTER_SETPASS(143, &filter); // MLDv2 report
  setsockopt(proxy.router_socket, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter));
  ICMP6_FILTER_SETBLOCKALL(&filter);
  setsockopt(proxy.idle_socket, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter));
  run_ip(std::string("link set ") + upstream + " promisc on allmulticast on");
  run_ip(std::string("link set ") + downstream + " promisc on allmulticast on");
  add_mif(proxy.router_socket, proxy.upstream);
  add_mif(proxy.router_socket, proxy.downstream);
  return proxy;
}

void floor_close(const floor_proxy &proxy) {
  close(proxy.router_socket);
  close(proxy.upstream_socket);
  close(proxy.idle_socket);
}

bool floor_receive(const floor_proxy &proxy, floor_message &message) {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(proxy.idle_socket, &ready);
  FD_SET(proxy.router_socket, &ready);
  if (select(std::max(proxy.idle_socket, proxy.router_socket) + 1, &ready, nullptr, nullptr, nullptr) <= 0) {
    return false;
  }
  sockaddr_in6 sender;
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(in6_pktinfo))> control;
  iovec element{message.bytes.data(), message.bytes.size()};
  msghdr header{};
  header.msg_name = &sender;
  header.msg_namelen = sizeof(sender);
  header.msg_iov = &element;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  if (recvmsg(proxy.router_socket, &header, 0) < 0) {
    return false;
  }
  const cmsghdr *first = CMSG_FIRSTHDR(&header);
  in6_pktinfo info{};
  if (first != nullptr) {
    std::memcpy(&info, CMSG_DATA(first), sizeof(info));
  }
  message.ifindex = static_cast<std::uint32_t>(info.ipi6_ifindex);
  return true;
}

int floor_join(const floor_proxy &proxy, const ipv6_address &group) {
  return request_group(proxy, IPV6_ADD_MEMBERSHIP, group);
}

int floor_leave(const floor_proxy &proxy, const ipv6_address &group) {
  return request_group(proxy, IPV6_DROP_MEMBERSHIP, group);
}

int floor_join_source(const floor_proxy &proxy, const ipv6_address &group, const ipv6_address &source) {
  return request_source(proxy, MCAST_JOIN_SOURCE_GROUP, group, source);
}

int floor_leave_source(const floor_proxy &proxy, const ipv6_address &group, const ipv6_address &source) {
  return request_source(proxy, MCAST_LEAVE_SOURCE_GROUP, group, source);
}

int floor_add_entry(const floor_proxy &proxy, const ipv6_address &origin, const ipv6_address &group) {
  return request(proxy.router_socket, MRT6_ADD_MFC, entry_of(proxy.upstream, origin, group, proxy.downstream));
}

int floor_delete_entry(const floor_proxy &proxy, const ipv6_address &origin, const ipv6_address &group) {
  return request(proxy.router_socket, MRT6_DEL_MFC, entry_of(proxy.upstream, origin, group, proxy.downstream));
}

void floor_send_query(const floor_proxy &proxy, std::span<const std::uint8_t> frame) {
  const int packet_socket = socket(AF_PACKET, SOCK_RAW, IPPROTO_ICMPV6);
  const int ifindex = static_cast<int>(proxy.downstream);
  request(proxy.upstream_socket, IPV6_MULTICAST_IF, ifindex);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = IPPROTO_ICMPV6;
  address.sll_ifindex = ifindex;
  address.sll_halen = 6;
  sendto(packet_socket, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
  close(packet_socket);
}

int prepare_kernel(std::uint32_t upstream, std::uint32_t downstream) {
  const int membership = open_icmp6_socket();
  ipv6_mreq routers{};
  routers.ipv6mr_multiaddr = to_in6_addr(mldv2_routers);
  routers.ipv6mr_interface = downstream;
  demand(membership, IPV6_ADD_MEMBERSHIP, routers, "join ff02::16");
  icmp6_filter filter;
  ICMP6_FILTER_SETBLOCKALL(&filter);
  setsockopt(membership, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof(filter));
  demand(membership, MRT6_ADD_MFC, entry_of(upstream, In6AddrAny, In6AddrAny, upstream), "static entry");
  return membership;
}

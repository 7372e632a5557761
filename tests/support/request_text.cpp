#include "request_text.h"

#include "scripted_kernel.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <linux/if_packet.h>
#include <linux/mroute.h>
#include <linux/mroute6.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

namespace scripted {

namespace {

enum class value_kind { integer, group6, source_group6, mfc6, mif6, filter6, vif, mfc, group4, address4, no_value };

struct option_shape {
  int level;
  int number;
  const char *name;
  value_kind kind;
};

constexpr option_shape shapes[] = {
    {IPPROTO_IPV6, MRT6_INIT, "MRT6_INIT", value_kind::integer},
    {IPPROTO_IPV6, MRT6_DONE, "MRT6_DONE", value_kind::integer},
    {IPPROTO_IPV6, MRT6_ADD_MIF, "MRT6_ADD_MIF", value_kind::mif6},
    {IPPROTO_IPV6, MRT6_DEL_MIF, "MRT6_DEL_MIF", value_kind::mif6},
    {IPPROTO_IPV6, MRT6_ADD_MFC, "MRT6_ADD_MFC", value_kind::mfc6},
    {IPPROTO_IPV6, MRT6_DEL_MFC, "MRT6_DEL_MFC", value_kind::mfc6},
    {IPPROTO_IPV6, IPV6_RECVPKTINFO, "IPV6_RECVPKTINFO", value_kind::integer},
    {IPPROTO_IPV6, IPV6_MULTICAST_HOPS, "IPV6_MULTICAST_HOPS", value_kind::integer},
    {IPPROTO_IPV6, IPV6_MULTICAST_LOOP, "IPV6_MULTICAST_LOOP", value_kind::integer},
    {IPPROTO_IPV6, IPV6_MULTICAST_IF, "IPV6_MULTICAST_IF", value_kind::integer},
    {IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, "IPV6_ADD_MEMBERSHIP", value_kind::group6},
    {IPPROTO_IPV6, IPV6_DROP_MEMBERSHIP, "IPV6_DROP_MEMBERSHIP", value_kind::group6},
    {IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP, "MCAST_JOIN_SOURCE_GROUP", value_kind::source_group6},
    {IPPROTO_IPV6, MCAST_LEAVE_SOURCE_GROUP, "MCAST_LEAVE_SOURCE_GROUP", value_kind::source_group6},
    {IPPROTO_IPV6, MCAST_BLOCK_SOURCE, "MCAST_BLOCK_SOURCE", value_kind::source_group6},
    {IPPROTO_ICMPV6, ICMP6_FILTER, "ICMP6_FILTER", value_kind::filter6},
    {SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR", value_kind::integer},
    {IPPROTO_IP, MRT_INIT, "MRT_INIT", value_kind::integer},
    {IPPROTO_IP, MRT_DONE, "MRT_DONE", value_kind::integer},
    {IPPROTO_IP, MRT_ADD_VIF, "MRT_ADD_VIF", value_kind::vif},
    {IPPROTO_IP, MRT_DEL_VIF, "MRT_DEL_VIF", value_kind::vif},
    {IPPROTO_IP, MRT_ADD_MFC, "MRT_ADD_MFC", value_kind::mfc},
    {IPPROTO_IP, MRT_DEL_MFC, "MRT_DEL_MFC", value_kind::mfc},
    {IPPROTO_IP, IP_PKTINFO, "IP_PKTINFO", value_kind::integer},
    {IPPROTO_IP, IP_MULTICAST_TTL, "IP_MULTICAST_TTL", value_kind::integer},
    {IPPROTO_IP, IP_MULTICAST_LOOP, "IP_MULTICAST_LOOP", value_kind::integer},
    {IPPROTO_IP, IP_MULTICAST_IF, "IP_MULTICAST_IF", value_kind::address4},
    {IPPROTO_IP, IP_ADD_MEMBERSHIP, "IP_ADD_MEMBERSHIP", value_kind::group4},
    {IPPROTO_IP, IP_DROP_MEMBERSHIP, "IP_DROP_MEMBERSHIP", value_kind::group4},
};

std::string number_text(long long number) { return std::to_string(number); }

std::string ipv6_text(const void *address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(AF_INET6, address, text, sizeof(text));
  return text;
}

// Bytes in memory order.
std::string ipv4_text(const void *address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, address, text, sizeof(text));
  return text;
}

// The expected bytes of a record whose named fields say everything; any other record is shown raw as well.
template <typename record> std::string raw_unless_equal(const record &sent, const record &expected) {
  return std::memcmp(&sent, &expected, sizeof(record)) == 0 ? "" : " raw=" + hex_text(&sent, sizeof(record));
}

std::string group6_text(const ipv6_mreq &value) {
  return "group=" + ipv6_text(&value.ipv6mr_multiaddr) + " ifindex=" + number_text(value.ipv6mr_interface);
}

std::string source_group6_text(const group_source_req &value) {
  sockaddr_in6 group;
  sockaddr_in6 source;
  std::memcpy(&group, &value.gsr_group, sizeof(group));
  std::memcpy(&source, &value.gsr_source, sizeof(source));
  group_source_req expected;
  std::memset(&expected, 0, sizeof(expected));
  expected.gsr_interface = value.gsr_interface;
  sockaddr_in6 plain{};
  plain.sin6_family = AF_INET6;
  plain.sin6_addr = group.sin6_addr;
  std::memcpy(&expected.gsr_group, &plain, sizeof(plain));
  plain.sin6_addr = source.sin6_addr;
  std::memcpy(&expected.gsr_source, &plain, sizeof(plain));
  return "group=" + ipv6_text(&group.sin6_addr) + " source=" + ipv6_text(&source.sin6_addr) +
         " ifindex=" + number_text(value.gsr_interface) + raw_unless_equal(value, expected);
}

std::string mfc6_text(const mf6cctl &value) {
  mf6cctl expected;
  std::memset(&expected, 0, sizeof(expected));
  expected.mf6cc_origin.sin6_addr = value.mf6cc_origin.sin6_addr;
  expected.mf6cc_mcastgrp.sin6_addr = value.mf6cc_mcastgrp.sin6_addr;
  expected.mf6cc_parent = value.mf6cc_parent;
  std::string outputs;
  for (unsigned int i = 0; i < MAXMIFS; ++i) {
    if (IF_ISSET(i, &value.mf6cc_ifset)) {
      expected.mf6cc_ifset.ifs_bits[i / NIFBITS] |= if_mask{1} << (i % NIFBITS);
      outputs += (outputs.empty() ? "" : ",") + number_text(i);
    }
  }
  return "origin=" + ipv6_text(&value.mf6cc_origin.sin6_addr) + " group=" + ipv6_text(&value.mf6cc_mcastgrp.sin6_addr) +
         " parent=" + number_text(value.mf6cc_parent) + " outputs={" + outputs + "}" +
         raw_unless_equal(value, expected);
}

std::string mif6_text(const mif6ctl &value) {
  return "mifi=" + number_text(value.mif6c_mifi) + " flags=" + number_text(value.mif6c_flags) +
         " threshold=" + number_text(value.vifc_threshold) + " pifi=" + number_text(value.mif6c_pifi) +
         " rate=" + number_text(value.vifc_rate_limit);
}

std::string filter6_text(const icmp6_filter &value) {
  std::string passed;
  for (unsigned int type = 0; type < 256; ++type) {
    if (ICMP6_FILTER_WILLPASS(type, &value)) {
      passed += (passed.empty() ? "" : ",") + number_text(type);
    }
  }
  return "pass={" + passed + "}";
}

std::string vif_text(const vifctl &value) {
  return "vifi=" + number_text(value.vifc_vifi) + " flags=" + number_text(value.vifc_flags) +
         " threshold=" + number_text(value.vifc_threshold) + " rate=" + number_text(value.vifc_rate_limit) +
         " local=" + ipv4_text(&value.vifc_lcl_addr) + " remote=" + ipv4_text(&value.vifc_rmt_addr);
}

// Outputs as "slot:ttl"; 255 means none and is left out, and a table without any output reads "{}".
std::string mfc_text(const mfcctl &value) {
  mfcctl expected;
  std::memset(&expected, 0, sizeof(expected));
  expected.mfcc_origin = value.mfcc_origin;
  expected.mfcc_mcastgrp = value.mfcc_mcastgrp;
  expected.mfcc_parent = value.mfcc_parent;
  std::memcpy(expected.mfcc_ttls, value.mfcc_ttls, sizeof(expected.mfcc_ttls));
  std::string outputs;
  for (int i = 0; i < MAXVIFS; ++i) {
    const int ttl = value.mfcc_ttls[i];
    if (ttl != 255) {
      outputs += (outputs.empty() ? "" : ",") + number_text(i) + ":" + number_text(ttl);
    }
  }
  return "origin=" + ipv4_text(&value.mfcc_origin) + " group=" + ipv4_text(&value.mfcc_mcastgrp) +
         " parent=" + number_text(value.mfcc_parent) + " ttls={" + outputs + "}" + raw_unless_equal(value, expected);
}

std::string group4_text(const ip_mreqn &value) {
  return "group=" + ipv4_text(&value.imr_multiaddr) + " address=" + ipv4_text(&value.imr_address) +
         " ifindex=" + number_text(value.imr_ifindex);
}

template <typename record> record read_record(const void *bytes) {
  record value;
  std::memcpy(&value, bytes, sizeof(record));
  return value;
}

template <typename record>
std::string record_text(const void *value, socklen_t length, std::string (*text)(const record &)) {
  if (length != sizeof(record)) {
    return "length=" + number_text(length) + " raw=" + hex_text(value, length);
  }
  return text(read_record<record>(value));
}

std::string value_text(value_kind kind, const void *value, socklen_t length) {
  switch (kind) {
  case value_kind::group6:
    return record_text<ipv6_mreq>(value, length, group6_text);
  case value_kind::source_group6:
    return record_text<group_source_req>(value, length, source_group6_text);
  case value_kind::mfc6:
    return record_text<mf6cctl>(value, length, mfc6_text);
  case value_kind::mif6:
    return record_text<mif6ctl>(value, length, mif6_text);
  case value_kind::filter6:
    return record_text<icmp6_filter>(value, length, filter6_text);
  case value_kind::vif:
    return record_text<vifctl>(value, length, vif_text);
  case value_kind::mfc:
    return record_text<mfcctl>(value, length, mfc_text);
  case value_kind::group4:
    return record_text<ip_mreqn>(value, length, group4_text);
  case value_kind::address4:
    return length == sizeof(in_addr) ? ipv4_text(value) : "length=" + number_text(length);
  case value_kind::integer:
  case value_kind::no_value:
    break;
  }
  if (length == 0) {
    return "length=0";
  }
  return length == sizeof(int) ? "= " + number_text(read_record<int>(value))
                               : "length=" + number_text(length) + " raw=" + hex_text(value, length);
}

const char *ioctl_name(unsigned long request) {
  switch (request) {
  case SIOCGIFCONF:
    return "SIOCGIFCONF";
  case SIOCGIFINDEX:
    return "SIOCGIFINDEX";
  case SIOCGIFFLAGS:
    return "SIOCGIFFLAGS";
  case SIOCSIFFLAGS:
    return "SIOCSIFFLAGS";
  case SIOCGIFDSTADDR:
    return "SIOCGIFDSTADDR";
  case SIOCDEVPRIVATE:
    return "NATPTMAPADD";
  case SIOCDEVPRIVATE + 1:
    return "NATPTMAPDEL";
  default:
    return "unknown ioctl";
  }
}

} // namespace

std::string hex_text(const void *bytes, std::size_t length) {
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof(pair), "%02x", static_cast<unsigned int>(static_cast<const unsigned char *>(bytes)[i]));
    text += pair;
  }
  return text;
}

std::string descriptor_text(int descriptor) {
  const auto named = Kernel.names.find(descriptor);
  return named != Kernel.names.end() ? named->second : "fd " + number_text(descriptor);
}

std::string socket_text(int domain, int type, int protocol) {
  const char *domain_name = domain == AF_INET6 ? "AF_INET6" : domain == AF_INET ? "AF_INET" : "AF_PACKET";
  const char *type_name = type == SOCK_RAW ? "SOCK_RAW" : type == SOCK_DGRAM ? "SOCK_DGRAM" : "unknown type";
  return std::string("socket(") + domain_name + ", " + type_name + ", " + number_text(protocol) + ")";
}

std::string setsockopt_text(int descriptor, int level, int option, const void *value, socklen_t length) {
  for (const option_shape &shape : shapes) {
    if (shape.level == level && shape.number == option) {
      return "setsockopt(" + descriptor_text(descriptor) + ", " + shape.name + ") " +
             value_text(shape.kind, value, length);
    }
  }
  return "setsockopt(" + descriptor_text(descriptor) + ", level " + number_text(level) + " option " +
         number_text(option) + ") raw=" + hex_text(value, length);
}

std::string ioctl_text(int descriptor, unsigned long request, const void *argument) {
  const std::string start = "ioctl(" + descriptor_text(descriptor) + ", " + ioctl_name(request) + ")";
  if (request == SIOCGIFCONF) {
    return start + " room=" + number_text(read_record<ifconf>(argument).ifc_len);
  }
  const auto value = read_record<ifreq>(argument);
  const std::string name(value.ifr_name, strnlen(value.ifr_name, IFNAMSIZ));
  if (request == SIOCSIFFLAGS) {
    char flags[16];
    std::snprintf(flags, sizeof(flags), "0x%x",
                  static_cast<unsigned int>(static_cast<unsigned short>(value.ifr_flags)));
    return start + " " + name + " flags=" + flags;
  }
  if (request == SIOCDEVPRIVATE || request == SIOCDEVPRIVATE + 1) {
    constexpr std::size_t map_record_bytes = 24;
    ifreq expected{};
    name.copy(expected.ifr_name, IFNAMSIZ);
    expected.ifr_data = value.ifr_data;
    return start + " " + name + " record=" + hex_text(value.ifr_data, map_record_bytes) +
           raw_unless_equal(value, expected);
  }
  return start + " " + name;
}

std::string sendto_text(int descriptor, std::size_t length, const sockaddr *address, socklen_t address_length) {
  std::string text =
      "sendto(" + descriptor_text(descriptor) + ", " + number_text(static_cast<long long>(length)) + " bytes)";
  if (address->sa_family == AF_PACKET && address_length == sizeof(sockaddr_ll)) {
    const auto target = read_record<sockaddr_ll>(address);
    text += " protocol=" + number_text(target.sll_protocol) + " ifindex=" + number_text(target.sll_ifindex) +
            " hatype=" + number_text(target.sll_hatype) + " pkttype=" + number_text(target.sll_pkttype) + " mac=";
    for (int i = 0; i < target.sll_halen && i < 8; ++i) {
      text += (i != 0 ? ":" : "") + hex_text(&target.sll_addr[i], 1);
    }
    return text;
  }
  if (address->sa_family == AF_INET && address_length == sizeof(sockaddr_in)) {
    const auto target = read_record<sockaddr_in>(address);
    return text + " to=" + ipv4_text(&target.sin_addr) + " port=" + number_text(ntohs(target.sin_port));
  }
  return text + " raw=" + hex_text(address, address_length);
}

} // namespace scripted

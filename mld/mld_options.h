// The socket options of the MLD side, with the names under which they stand in the log.
#pragma once

#include "core/address.h" // its netinet/in.h must come before linux/mroute6.h, or both define in6_addr
#include "core/kernel_request.h"

#include <linux/mroute6.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>

inline constexpr kernel_option MLD_OPTION_MRT6_INIT{IPPROTO_IPV6, MRT6_INIT, "MRT6_INIT"};
inline constexpr kernel_option MLD_OPTION_MRT6_DONE{IPPROTO_IPV6, MRT6_DONE, "MRT6_DONE"};
inline constexpr kernel_option MLD_OPTION_MRT6_ADD_MIF{IPPROTO_IPV6, MRT6_ADD_MIF, "MRT6_ADD_MIF"};
inline constexpr kernel_option MLD_OPTION_MRT6_DEL_MIF{IPPROTO_IPV6, MRT6_DEL_MIF, "MRT6_DEL_MIF"};
inline constexpr kernel_option MLD_OPTION_MRT6_ADD_MFC{IPPROTO_IPV6, MRT6_ADD_MFC, "MRT6_ADD_MFC"};
inline constexpr kernel_option MLD_OPTION_MRT6_DEL_MFC{IPPROTO_IPV6, MRT6_DEL_MFC, "MRT6_DEL_MFC"};

inline constexpr kernel_option MLD_OPTION_SO_REUSEADDR{SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR"};
inline constexpr kernel_option MLD_OPTION_IPV6_RECVPKTINFO{IPPROTO_IPV6, IPV6_RECVPKTINFO, "IPV6_RECVPKTINFO"};
inline constexpr kernel_option MLD_OPTION_IPV6_MULTICAST_HOPS{IPPROTO_IPV6, IPV6_MULTICAST_HOPS, "IPV6_MULTICAST_HOPS"};
inline constexpr kernel_option MLD_OPTION_IPV6_MULTICAST_LOOP{IPPROTO_IPV6, IPV6_MULTICAST_LOOP, "IPV6_MULTICAST_LOOP"};
inline constexpr kernel_option MLD_OPTION_IPV6_MULTICAST_IF{IPPROTO_IPV6, IPV6_MULTICAST_IF, "IPV6_MULTICAST_IF"};
inline constexpr kernel_option MLD_OPTION_ICMP6_FILTER{IPPROTO_ICMPV6, ICMP6_FILTER, "ICMP6_FILTER"};

inline constexpr kernel_option MLD_OPTION_IPV6_ADD_MEMBERSHIP{IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, "IPV6_ADD_MEMBERSHIP"};
inline constexpr kernel_option MLD_OPTION_IPV6_DROP_MEMBERSHIP{IPPROTO_IPV6, IPV6_DROP_MEMBERSHIP,
                                                               "IPV6_DROP_MEMBERSHIP"};
inline constexpr kernel_option MLD_OPTION_MCAST_JOIN_SOURCE_GROUP{IPPROTO_IPV6, MCAST_JOIN_SOURCE_GROUP,
                                                                  "MCAST_JOIN_SOURCE_GROUP"};
inline constexpr kernel_option MLD_OPTION_MCAST_LEAVE_SOURCE_GROUP{IPPROTO_IPV6, MCAST_LEAVE_SOURCE_GROUP,
                                                                   "MCAST_LEAVE_SOURCE_GROUP"};
inline constexpr kernel_option MLD_OPTION_MCAST_BLOCK_SOURCE{IPPROTO_IPV6, MCAST_BLOCK_SOURCE, "MCAST_BLOCK_SOURCE"};

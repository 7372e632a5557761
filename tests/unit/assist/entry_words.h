// A group with an entry for all sources and one for a listed source: what the kernel reports about them, and the
// requests.
#pragma once

#include "mld_bytes.h"
#include "netlink_bytes.h"

#include <string>
#include <vector>

inline constexpr unsigned WAN = 3;
inline constexpr unsigned BR0 = 4;
inline constexpr unsigned LAN1 = 5;
inline const std::string GROUP = "ff0e::1";
inline const std::string SOURCE = "2001:db8:2::10";
inline const std::string PUT_SHIELD = "MRT6_ADD_MFC_PROXY :: ff0e::1 parent 0 to";
inline const std::string DELETE_SHIELD = "MRT6_DEL_MFC_PROXY :: ff0e::1 parent 0 to";
inline const std::string JOIN_UPSTREAM = "IPV6_ADD_MEMBERSHIP ff0e::1 3";
inline const std::string LEAVE_UPSTREAM = "IPV6_DROP_MEMBERSHIP ff0e::1 3";
inline const std::string DELETE_BEHIND = "MRT6_DEL_MFC_PROXY :: ff0e::1 parent 3 to";

inline std::string put_behind(const std::string &outputs) {
  return "MRT6_ADD_MFC_PROXY :: ff0e::1 parent 3 to" + outputs;
}
inline std::string put_source(const std::string &outputs) {
  return "MRT6_ADD_MFC " + SOURCE + " ff0e::1 parent 3 to" + outputs;
}

inline byte_vector entry_of(int type, unsigned input, const std::vector<std::uint32_t> &outputs,
                            const std::string &origin, const std::string &group = GROUP) {
  return entry_message(type, input, outputs, to_in6_addr(address(origin)), to_in6_addr(address(group)));
}

inline byte_vector any_source(const std::vector<std::uint32_t> &outputs) {
  return entry_of(RTM_NEWROUTE, WAN, outputs, "::");
}
inline byte_vector source(const std::vector<std::uint32_t> &outputs) {
  return entry_of(RTM_NEWROUTE, WAN, outputs, SOURCE);
}
inline byte_vector deleted_shield() { return entry_of(RTM_DELROUTE, 0, {}, "::"); }

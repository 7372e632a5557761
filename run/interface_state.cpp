#include "run/interface_state.h"

#include "run/table_lines.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <linux/if_addr.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char address_table[] = "/proc/net/if_inet6";

// fe80::/10 (RFC 4291, section 2.5.6).
bool is_link_local_unicast(const in6_addr &address) {
  return address.s6_addr[0] == 0xfe && (address.s6_addr[1] & 0xc0) == 0x80;
}

ifreq request_for(const interface_name &name) {
  ifreq request{};
  std::memcpy(request.ifr_name, name.data(), name.size());
  return request;
}

// One ioctl on a socket of its own. False with errno.
bool ask(std::uint16_t what, ifreq &request) {
  const int opened = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool is_done = opened >= 0 && ioctl(opened, what, &request) == 0;
  if (opened >= 0) {
    const int reason = errno;
    close(opened);
    errno = reason;
  }
  return is_done;
}

// A kernel without IPv6 has no such table, and no address.
bool find_link_local(const interface_name &name, const in6_addr &preferred, interface_state &state) {
  table_lines table;
  if (!open_table(table, address_table)) {
    return errno == ENOENT;
  }
  for (table_line line; next_table_line(table, line);) {
    if_inet6_row row;
    if (!parse_if_inet6(line.data(), row) || !is_ready_link_local(row, name)) {
      continue;
    }
    const bool is_preferred = is_same_address(row.address, preferred);
    if (!state.has_link_local || is_preferred) {
      state.has_link_local = true;
      state.link_local = row.address;
    }
    if (is_preferred) {
      break;
    }
  }
  close_table(table);
  return true;
}

} // namespace

bool parse_if_inet6(const char *line, if_inet6_row &row) {
  row = {};
  std::array<unsigned, 8> words;
  std::uint32_t index;
  unsigned prefix_length;
  unsigned scope;
  constexpr int items = 13;
  const int read = std::sscanf(line, "%4x%4x%4x%4x%4x%4x%4x%4x %" SCNx32 " %x %x %" SCNx32 " %15s", &words[0],
                               &words[1], &words[2], &words[3], &words[4], &words[5], &words[6], &words[7], &index,
                               &prefix_length, &scope, &row.flags, row.name.data());
  for (std::size_t i = 0; i < words.size(); ++i) {
    row.address.s6_addr[2 * i] = static_cast<std::uint8_t>(words[i] >> 8);
    row.address.s6_addr[2 * i + 1] = static_cast<std::uint8_t>(words[i]);
  }
  return read == items;
}

bool is_ready_link_local(const if_inet6_row &row, const interface_name &name) {
  const bool is_usable = (row.flags & IFA_F_TENTATIVE) == 0 || (row.flags & IFA_F_OPTIMISTIC) != 0;
  return is_usable && (row.flags & IFA_F_DADFAILED) == 0 && is_link_local_unicast(row.address) &&
         std::strcmp(row.name.data(), name.data()) == 0;
}

bool look_at_interface(const interface_name &name, const in6_addr &preferred, interface_state &state) {
  interface_state seen{};
  ifreq request = request_for(name);
  bool is_there = ask(SIOCGIFINDEX, request);
  if (is_there) {
    seen.index = static_cast<std::uint32_t>(request.ifr_ifindex);
    request = request_for(name);
    is_there = ask(SIOCGIFFLAGS, request);
    seen.flags = static_cast<std::uint16_t>(request.ifr_flags);
  }
  if (!is_there) {
    if (errno != ENODEV) {
      return false;
    }
    seen = {};
  } else if (!find_link_local(name, preferred, seen)) {
    return false;
  }
  state = seen;
  return true;
}

bool is_up(const interface_state &state) { return state.index != 0 && (state.flags & IFF_UP) != 0; }

bool is_same_address(const in6_addr &left, const in6_addr &right) {
  return std::memcmp(&left, &right, sizeof(left)) == 0;
}

bool set_interface_flags(const interface_name &name, std::uint16_t flags) {
  ifreq request = request_for(name);
  request.ifr_flags = static_cast<short>(flags);
  return ask(SIOCSIFFLAGS, request);
}

bool read_mac(const interface_name &name, std::array<std::uint8_t, 6> &mac) {
  ifreq request = request_for(name);
  if (!ask(SIOCGIFHWADDR, request)) {
    return false;
  }
  std::memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
  return true;
}

// What the kernel says of one interface now.
#pragma once

#include "run/options.h"

#include <cstdint>
#include <netinet/in.h>

struct interface_state {
  std::uint32_t index; // 0 = there is none of that name
  std::uint16_t flags; // IFF_UP, ... (net/if.h)
  bool has_link_local; // one that duplicate address detection has passed
  in6_addr link_local;
};

// One line of /proc/net/if_inet6.
struct if_inet6_row {
  in6_addr address;
  std::uint32_t flags; // IFA_F_TENTATIVE, ... (linux/if_addr.h)
  interface_name name;
};

// False if the line makes no sense.
bool parse_if_inet6(const char *line, if_inet6_row &row);

// Whether the row is a link-local address of that interface that may be used.
bool is_ready_link_local(const if_inet6_row &row, const interface_name &name);

// Asks the kernel. Of several link-local addresses it takes `preferred` if that is among them, the first otherwise.
// False if the kernel could not be asked (no memory, no descriptor); `state` is unchanged then.
bool look_at_interface(const interface_name &name, const in6_addr &preferred, interface_state &state);

bool is_up(const interface_state &state);
bool is_same_address(const in6_addr &left, const in6_addr &right);

// Sets the interface's flags, net/if.h's. False with errno.
bool set_interface_flags(const interface_name &name, std::uint16_t flags);

// Its MAC address. False with errno.
bool read_mac(const interface_name &name, std::array<std::uint8_t, 6> &mac);

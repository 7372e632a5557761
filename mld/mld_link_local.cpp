#include "mld/mld_link_local.h"

#include "core/log.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int line_bytes = 1024;
constexpr int name_bytes = 9; // "%8s" and its NUL

struct if_inet6_line {
  ipv6_address address;
  std::array<char, name_bytes> name;
};

// Returns whether the line held all items: 16 address bytes, index, prefix length, scope, flags, name.
bool parse_line(const char *line, if_inet6_line &parsed) {
  constexpr int items = 21;
  unsigned int index;
  unsigned int prefix_length;
  unsigned int scope;
  unsigned int flags;
  ipv6_address &a = parsed.address;
  return std::sscanf(line,
                     "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx"
                     " %x %x %x %x %8s",
                     &a[0], &a[1], &a[2], &a[3], &a[4], &a[5], &a[6], &a[7], &a[8], &a[9], &a[10], &a[11], &a[12],
                     &a[13], &a[14], &a[15], &index, &prefix_length, &scope, &flags, parsed.name.data()) == items;
}

// fe80::/10 (RFC 4291, section 2.5.6); the scope column of the table is not asked.
bool is_link_local_unicast(const ipv6_address &address) { return address[0] == 0xfe && (address[1] & 0xc0) == 0x80; }

} // namespace

int set_linklocal(mld_interface *intr) {
  // The stream stays open on every path: it is made once for each of at most nine interfaces.
  FILE *table = std::fopen("/proc/net/if_inet6", "r");
  if (table == nullptr) {
    log_error(MLD_HERE, "Couldn't open /proc/net/if_inet6 for figuring out local interfaces");
    return -1;
  }
  std::array<char, line_bytes> line;
  while (std::fgets(line.data(), line_bytes, table) != nullptr) {
    if_inet6_line parsed;
    if (!parse_line(line.data(), parsed)) {
      log_debug(MLD_HERE, "/proc/net/if_inet6 has a broken line, ignoring");
      continue;
    }
    if (std::strcmp(parsed.name.data(), intr->name.data()) == 0 && is_link_local_unicast(parsed.address)) {
      intr->link_local = parsed.address;
      return 0;
    }
  }
  log_error(MLD_HERE, "Couldn't find out link local address for interfaces: %s", intr->name.data());
  return -1;
}

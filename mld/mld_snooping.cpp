#include "mld/mld_snooping.h"

#include "core/log.h"
#include "core/state_file.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <tuple>

namespace {

// Room for 15 characters, kept for compatibility: a longer address leaves the line without one.
using short_address_text = std::array<char, INET_ADDRSTRLEN>;

short_address_text to_short_text(const ipv6_address &address) {
  short_address_text text{};
  if (inet_ntop(AF_INET6, address.data(), text.data(), text.size()) == nullptr) {
    text.fill('\0');
  }
  return text;
}

} // namespace

void mld_snooping_leave(const ipv6_address &source, const ipv6_address &group) {
  FILE *record = open_state_file("/tmp/tarnwick_leave_record");
  if (record == nullptr) {
    log_error(MLD_HERE, "Open file \"/tmp/tarnwick_leave_record\" failed.");
    return;
  }
  if (source != In6AddrAny) {
    std::fprintf(record, "src=%s\n", to_short_text(source).data());
  }
  std::fprintf(record, "grp=%s\n", to_short_text(group).data());
  std::fclose(record);
  std::ignore = std::system("killall -USR2 igmp_snooping");
}

// A proxy that makes only the kernel requests: it joins what hosts ask for, forwards it to them, and never leaves
// anything. Usage: bench_floor UPSTREAM DOWNSTREAM; ends on SIGTERM.

#include "bench/floor/floor_proxy.h"
#include "mld/mld_record.h"
#include "mld/mld_wire.h"

#include <algorithm>
#include <cstdio>

namespace {

void join_for_any_source(const floor_proxy &proxy, const ipv6_address &group) {
  if (floor_join(proxy, group) == -1) {
    floor_leave(proxy, group);
    floor_join(proxy, group);
  }
  floor_add_entry(proxy, In6AddrAny, group);
}

void handle_v2_report(const floor_proxy &proxy, floor_message &message) {
  const std::size_t count = read_u16(&message.bytes[MLD2_RECORD_COUNT_OFFSET]);
  std::size_t offset = MLD2_FIRST_RECORD_OFFSET;
  for (std::size_t i = 0; i < count && offset + MLD_RECORD_HEADER_BYTES <= message.bytes.size(); ++i) {
    const mld_record record{std::span(message.bytes).subspan(offset)};
    const ipv6_address group = mld_record_group(record);
    const std::size_t sources = mld_record_claimed_sources(record);
    const bool is_exclude =
        mld_record_kind(record) == MLD2_MODE_IS_EXCLUDE || mld_record_kind(record) == MLD2_CHANGE_TO_EXCLUDE;
    if (is_exclude && sources == 0 && !is_link_local_group(group)) {
      join_for_any_source(proxy, group);
    }
    offset += MLD_RECORD_HEADER_BYTES + sources * IPV6_ADDRESS_BYTES;
  }
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fputs("Usage: bench_floor UPSTREAM DOWNSTREAM\n", stderr);
    return 2;
  }
  const floor_proxy proxy = floor_open(argv[1], argv[2]);
  floor_message message;
  while (floor_receive(proxy, message)) {
    if (message.ifindex == proxy.downstream && message.bytes[0] == ICMPV6_MLD2_REPORT) {
      handle_v2_report(proxy, message);
    }
  }
  return 0;
}

#include "mld/mld_host.h"

#include "core/log.h"

#include <arpa/inet.h>

namespace {

constexpr std::uint32_t reported_host_state = 2; // no reader; firmware tools see it in memory dumps

bool matches(const mld_host *record, const ipv6_address &group, const ipv6_address &host, const ipv6_address &source) {
  if (!is_same_address(record->group, group)) {
    return false;
  }
  if (host != In6AddrAny) {
    return record->host == host && record->source == source;
  }
  return source == In6AddrAny || record->source == source;
}

} // namespace

mld_host *mld_router_host_lookup(const mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                                 const ipv6_address &source) {
  log_debug(MLD_HERE, "host_address: %s source_address: %s", ADDRESS_TEXT(host), ADDRESS_TEXT(source));
  mld_host *record = list_first<mld_host>(&intr->hosts);
  while (record != nullptr && !matches(record, group, host, source)) {
    record = list_after(record);
  }
  return record;
}

mld_host *mld_router_host_add(mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                              const ipv6_address &source) {
  mld_host *known = mld_router_host_lookup(intr, group, host, source);
  if (known != nullptr) {
    return known;
  }
  mld_host *record = list_pop<mld_host>(&MldRouter.free_hosts);
  if (record == nullptr) {
    log_error(MLD_HERE, "MLD Error:No more free host");
    return nullptr;
  }
  record->group = group;
  record->source = source;
  record->host = host;
  log_debug(MLD_HERE, "list_add group:%s", ADDRESS_TEXT(record->group));
  log_debug(MLD_HERE, "list_add host:%s", ADDRESS_TEXT(record->host));
  log_debug(MLD_HERE, "list_add source:%s", ADDRESS_TEXT(record->source));
  record->host_state = reported_host_state;
  list_append(&intr->hosts, &record->link);
  return record;
}

int mld_router_host_del(mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                        const ipv6_address &source) {
  mld_host *record = mld_router_host_lookup(intr, group, host, source);
  if (record == nullptr) {
    return 0;
  }
  const int unlinked = list_remove_node(&intr->hosts, &record->link);
  if (unlinked == -1) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, record->host.data(), text.data(), text.size());
    log_debug(MLD_HERE, "list_remove_node fail: host = %s\n ", text.data());
  }
  return unlinked;
}

#include "mld/mld_host.h"

#include "core/log.h"

#include <arpa/inet.h>
#include <bit>

list_index MldHostIndex{};

namespace {

constexpr std::uint32_t reported_host_state = 2; // no reader; kept for compatibility

static_assert(MLD_HOST_POOL_SIZE <= LIST_INDEX_PLACES);

// The three are folded apart: in a report of many sources group and host are the same for all.
std::uint32_t key_of(const ipv6_address &group, const ipv6_address &host, const ipv6_address &source) {
  return address_key(group) ^ std::rotl(address_key(host), 7) ^ std::rotl(address_key(source), 14);
}

mld_host *find_host(const mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                    const ipv6_address &source) {
  for (const list_place *place = list_index_first(MldHostIndex, key_of(group, host, source)); place != nullptr;
       place = list_index_next(MldHostIndex, place)) {
    auto *record = reinterpret_cast<mld_host *>(place->node);
    if (place->on == &intr->hosts && is_same_address(record->group, group) && is_same_address(record->host, host) &&
        is_same_address(record->source, source)) {
      return record;
    }
  }
  return nullptr;
}

// Whatever host it is: the first on the list, which only a walk tells.
mld_host *find_any_host(const mld_interface *intr, const ipv6_address &group, const ipv6_address &source) {
  const bool is_any_source = is_same_address(source, In6AddrAny);
  for (mld_host *record : list_records<mld_host>(&intr->hosts)) {
    if (is_same_address(record->group, group) && (is_any_source || is_same_address(record->source, source))) {
      return record;
    }
  }
  return nullptr;
}

} // namespace

std::uint32_t mld_host_key(const mld_host *host) { return key_of(host->group, host->host, host->source); }

mld_host *mld_router_host_lookup(const mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                                 const ipv6_address &source) {
  log_debug(MLD_HERE, "host_address: %s source_address: %s", ADDRESS_TEXT(host), ADDRESS_TEXT(source));
  return is_same_address(host, In6AddrAny) ? find_any_host(intr, group, source) : find_host(intr, group, host, source);
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
  list_index_append(MldHostIndex, &intr->hosts, &record->link, mld_host_key(record));
  return record;
}

int mld_router_host_del(mld_interface *intr, const ipv6_address &group, const ipv6_address &host,
                        const ipv6_address &source) {
  mld_host *record = mld_router_host_lookup(intr, group, host, source);
  if (record == nullptr) {
    return 0;
  }
  const int unlinked = list_index_remove(MldHostIndex, &intr->hosts, &record->link, mld_host_key(record));
  if (unlinked == -1) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, record->host.data(), text.data(), text.size());
    log_debug(MLD_HERE, "list_remove_node fail: host = %s\n ", text.data());
  }
  return unlinked;
}

void mld_return_hosts(mld_interface *intr) {
  for (auto *host = list_first<mld_host>(&intr->hosts); host != nullptr; host = list_first<mld_host>(&intr->hosts)) {
    list_index_pop(MldHostIndex, &intr->hosts, mld_host_key(host));
    list_append(&MldRouter.free_hosts, &host->link);
  }
}

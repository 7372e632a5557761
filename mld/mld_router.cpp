#include "mld/mld_router.h"

mld_router MldRouter{};
std::uint32_t MldBlock = 0;
std::uint32_t MldStartUpQueryIsSend = 0;
ipv6_address mld_tmp_origin{};

namespace {

constexpr mld_interface no_interface = [] {
  mld_interface absent{};
  absent.socket = -1;
  return absent;
}();

} // namespace

const mld_interface &mld_upstream() {
  return MldRouter.upstream_interface != nullptr ? *MldRouter.upstream_interface : no_interface;
}

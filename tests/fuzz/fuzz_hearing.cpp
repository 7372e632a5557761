// What the companion hears on its LANs: messages of hosts and other queriers, entries that come and go, and time that
// passes. Checks each query that it sends.
#include "assist/group_question.h"
#include "assist/interface_watch.h"
#include "assist/mld_hearing.h"
#include "assist/querier.h"
#include "assist/retry.h"
#include "assist/static_entry.h"
#include "script_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr std::uint32_t upstream = 3;
constexpr std::array<std::uint32_t, 2> lans{4, 5};
constexpr std::int64_t start_ms = 1'000'000;
constexpr std::int64_t shortest_spacing_ms = 100;
constexpr std::size_t query_bytes = 28;

std::int64_t now_ms;
std::array<std::int64_t, 8> sent_ms; // by interface index
unsigned asked_link_local;

void set_up_watch() {
  InterfaceWatch = {};
  InterfaceWatch.count = 1 + lans.size();
  InterfaceWatch.interfaces[0].is_upstream = true;
  InterfaceWatch.interfaces[0].index = upstream;
  StaticEntry = {};
  StaticEntry.is_mif_registered = true;
  for (std::size_t i = 0; i < lans.size(); ++i) {
    InterfaceWatch.interfaces[i + 1].index = lans[i];
    start_querier(InterfaceWatch.interfaces[i + 1]);
  }
  forget_questions();
}

// One of a few groups, so that messages, queries and entries meet.
ipv6_address pick_group(world::script_reader &script) {
  return {0xff, 0x3e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, script.below(2), script.byte()};
}

void pass_time(world::script_reader &script) {
  constexpr std::int64_t step_ms = 10;
  now_ms += step_ms * (script.byte() << 8 | script.byte());
  const std::int64_t next_ms = next_query_ms();
  if (next_ms != NO_DEADLINE && next_ms < now_ms && script.below(2) == 0) {
    now_ms = std::max(now_ms - step_ms, next_ms);
  }
  send_due_queries();
}

void change_entry(world::script_reader &script) {
  notification event{};
  event.kind = script.below(2) == 0 ? notification_kind::entry_there : notification_kind::entry_gone;
  event.outputs = script.byte();
  event.group = pick_group(script);
  handle_group_entry(event);
}

void hear(world::script_reader &script) {
  static mld_message message;
  message = {};
  message.index = upstream + script.below(4);
  message.sender = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, script.byte()};
  message.destination =
      script.below(2) == 0 ? ipv6_address{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1} : pick_group(script);
  const std::uint8_t flags = script.byte();
  message.hop_limit = (flags & 1) == 0 ? 1 : 255;
  message.has_router_alert = (flags & 2) == 0;
  message.length = std::min<std::size_t>(script.byte() * std::size_t{(flags & 4) == 0 ? 1U : 8U}, MLD_MESSAGE_BYTES);
  for (std::size_t i = 0; i < message.length; ++i) {
    message.bytes[i] = script.byte();
  }
  if ((flags & 8) != 0) { // a group that something is known about
    const ipv6_address group = pick_group(script);
    const std::size_t at = message.bytes[0] == ICMPV6_MLD2_REPORT ? MLD2_FIRST_RECORD_OFFSET + 4 : MLD_GROUP_OFFSET;
    std::copy(group.begin(), group.end(), &message.bytes[at]);
  }
  handle_mld_message(message);
}

void check_query(const msghdr &header) {
  sockaddr_in6 to;
  std::memcpy(&to, header.msg_name, sizeof(to));
  const auto *bytes = static_cast<const std::uint8_t *>(header.msg_iov->iov_base);
  if (header.msg_iov->iov_len != query_bytes || bytes[0] != ICMPV6_MGM_QUERY || to.sin6_scope_id >= sent_ms.size()) {
    mute::fail("no query");
  }
  if (bytes[MLD_GROUP_OFFSET] != 0 && (bytes[MLD_GROUP_OFFSET] != 0xff || bytes[MLD_GROUP_OFFSET + 1] == 0x02)) {
    mute::fail("a query about a group that is never routed");
  }
  if (std::find(lans.begin(), lans.end(), to.sin6_scope_id) == lans.end()) {
    mute::fail("a query where nobody asked for it");
  }
  if (now_ms - sent_ms[to.sin6_scope_id] < shortest_spacing_ms) {
    mute::fail("more than ten queries a second");
  }
  sent_ms[to.sin6_scope_id] = now_ms;
}

} // namespace

extern "C" {

int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __wrap_connect(int socket, const sockaddr *address, socklen_t length);
int __wrap_getsockname(int socket, sockaddr *address, socklen_t *length);
ssize_t __wrap_sendmsg(int socket, const msghdr *header, int flags);

int __wrap_clock_gettime(clockid_t, timespec *now) {
  *now = {static_cast<time_t>(now_ms / 1000), static_cast<long>(now_ms % 1000 * 1'000'000)};
  return 0;
}

int __wrap_connect(int, const sockaddr *address, socklen_t) {
  sockaddr_in6 to;
  std::memcpy(&to, address, sizeof(to));
  asked_link_local = to.sin6_scope_id;
  return 0;
}

int __wrap_getsockname(int, sockaddr *address, socklen_t *) {
  sockaddr_in6 own{};
  own.sin6_addr.s6_addr[0] = 0xfe;
  own.sin6_addr.s6_addr[1] = 0x80;
  own.sin6_addr.s6_addr[15] = static_cast<std::uint8_t>(asked_link_local);
  std::memcpy(address, &own, sizeof(own));
  return 0;
}

ssize_t __wrap_sendmsg(int, const msghdr *header, int) {
  check_query(*header);
  return static_cast<ssize_t>(header->msg_iov->iov_len);
}

} // extern "C"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  mute::silence();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
  enum class step { pass_time, change_entry, hear, count };
  now_ms = start_ms;
  sent_ms = {};
  mute::play([&] {
    set_up_watch();
    world::script_reader script{{bytes, size}, 0};
    while (!script.is_at_end()) {
      switch (static_cast<step>(script.below(static_cast<std::size_t>(step::count)))) {
      case step::pass_time:
        pass_time(script);
        break;
      case step::change_entry:
        change_entry(script);
        break;
      default:
        hear(script);
        break;
      }
    }
  });
  return 0;
}

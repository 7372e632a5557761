#include "entries_world.h"

#include "assist/group_outputs.h"
#include "assist/group_watch.h"
#include "assist/interface_watch.h"
#include "assist/mld_hearing.h"
#include "assist/retry.h"
#include "mld/mld_wire.h"
#include "mute_kernel.h"
#include "script_reader.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr std::uint32_t WAN = 3;
constexpr std::size_t LANS = 8;
constexpr std::uint32_t FIRST_LAN = 4;
constexpr tenths longest_deadline = 3520;

constexpr std::int64_t beginning_ms = 1'000'000;

std::int64_t now_ms = beginning_ms;

} // namespace

extern "C" int __wrap_clock_gettime(clockid_t, timespec *now);
extern "C" int __wrap_clock_gettime(clockid_t, timespec *now) {
  *now = {static_cast<time_t>(now_ms / 1000), static_cast<long>(now_ms % 1000 * 1'000'000)};
  return 0;
}

namespace world {

namespace {

ipv6_address numbered(std::uint8_t first, std::uint8_t number) {
  ipv6_address address{};
  address[0] = first;
  address[15] = number;
  return address;
}

ipv6_address any_group(script_reader &script) { return numbered(script.below(32) == 0 ? 0 : 0xff, script.byte()); }

ipv6_address any_origin(script_reader &script) {
  return script.below(2) == 0 ? In6AddrAny : numbered(0x20, script.below(16));
}

void notify(script_reader &script) {
  notification event{};
  event.kind = script.below(3) == 0 ? notification_kind::entry_gone : notification_kind::entry_there;
  event.group = any_group(script);
  event.origin = any_origin(script);
  event.input = script.below(4) == 0 ? script.below(8) : WAN;
  event.outputs = static_cast<std::uint32_t>(script.byte()) << FIRST_LAN;
  event.is_static = script.below(2) == 0;
  watch_group_entry(event);
}

void write_address(mld_message &message, std::size_t at, const ipv6_address &address) {
  std::copy(address.begin(), address.end(), &message.bytes[at]);
}

void say_something(script_reader &script) {
  mld_message message{};
  message.index = FIRST_LAN + script.below(LANS);
  message.bytes[0] = script.below(4) == 0 ? ICMPV6_MGM_REPORT : ICMPV6_MLD2_REPORT;
  if (message.bytes[0] == ICMPV6_MGM_REPORT) {
    write_address(message, MLD_GROUP_OFFSET, any_group(script));
  } else {
    const std::uint8_t sources = script.below(13);
    message.bytes[MLD2_RECORD_COUNT_OFFSET + 1] = 1;
    message.bytes[MLD2_FIRST_RECORD_OFFSET] = script.below(8);
    message.bytes[MLD2_FIRST_RECORD_OFFSET + 3] = sources;
    write_address(message, MLD2_FIRST_RECORD_OFFSET + 4, any_group(script));
    for (std::size_t i = 0; i < sources; ++i) {
      write_address(message, MLD2_FIRST_RECORD_OFFSET + MLD_RECORD_HEADER_BYTES + i * IPV6_ADDRESS_BYTES,
                    any_origin(script));
    }
  }
  message.length = message.bytes.size();
  handle_mld_message(message);
}

void check_group(watched_group &group) {
  if (group.entry_count > MOST_ENTRIES || find_watched_group(group.group) != &group) {
    mute::fail("a group with too many entries, or twice in the table");
  }
  if (group.awaits_own_message >> group.entry_count != 0) {
    mute::fail("an entry that is not there awaits a message");
  }
  if (group.entry_count == 0 && group.own_deletes == 0) {
    mute::fail("a group without entries");
  }
  if (group.is_widened && find_entry(group, In6AddrAny) == nullptr) {
    mute::fail("a membership upstream of a group without any-source listeners");
  }
  for (const cache_entry &entry : entries_of(group)) {
    if (find_entry(group, entry.origin) != &entry) {
      mute::fail("an entry twice in a group");
    }
  }
  const tenths now = tenths_now();
  const auto is_late = [now](tenths deadline) { return deadline != NOT_TIMED && deadline > now + longest_deadline; };
  if (is_late(group.gone_at) || std::any_of(group.ends_at.begin(), group.ends_at.end(), is_late)) {
    mute::fail("a deadline that is too far away");
  }
}

void check_entries() {
  if (GroupTable.used > MOST_GROUPS) {
    mute::fail("more groups than records");
  }
  for (watched_group &group : watched_groups()) {
    if (group.is_used) {
      check_group(group);
    } else if (group.is_widened) {
      mute::fail("a membership upstream that outlives its group");
    }
  }
}

// Nothing that is due may be left: the loop must not spin.
void meet_deadlines() {
  handle_group_deadlines();
  if (next_group_deadline_ms() <= now_ms) {
    mute::fail("a deadline that was met is due still");
  }
}

void play(script_reader &script) {
  switch (script.below(8)) {
  case 0:
  case 1:
  case 2:
    notify(script);
    break;
  case 3:
  case 4:
  case 5:
    say_something(script);
    break;
  case 6:
    now_ms += script.byte() * std::int64_t{1000};
    meet_deadlines();
    break;
  default:
    if (script.below(16) == 0) {
      handle_groups_released();
      GroupOutputs.upstream = WAN;
    } else {
      now_ms += script.byte();
      meet_deadlines();
    }
  }
}

} // namespace

void start_entries() {
  now_ms = beginning_ms; // tenths of a second wrap around after 13 years, which many lives make up
  InterfaceWatch = {};
  InterfaceWatch.count = LANS + 1;
  for (std::uint32_t i = 0; i <= LANS; ++i) {
    InterfaceWatch.interfaces[i].index = WAN + i;
    InterfaceWatch.interfaces[i].is_upstream = i == 0;
  }
  start_group_watch(1);
  GroupOutputs.upstream = WAN;
}

void play_entries_step(std::span<const std::uint8_t> bytes) {
  mute::play([&bytes] {
    script_reader script{bytes, 0};
    if (script.below(8) == 0) {
      plan_refusals(script);
    }
    while (!script.is_at_end()) {
      play(script);
      check_entries();
    }
    mute::Kernel.refusals = {};
  });
}

void pass_second_of_entries() {
  mute::play([] {
    now_ms += 1000;
    meet_deadlines();
    check_entries();
  });
}

} // namespace world

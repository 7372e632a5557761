#include "mld_world.h"

#include "core/memory.h"
#include "core/settings.h"
#include "core/state_dump.h"
#include "mld/mld_interface.h"
#include "mld/mld_receive.h"
#include "mld/mld_router.h"
#include "mld/mld_shutdown.h"
#include "mld/mld_socket.h"
#include "mld/mld_start_up.h"
#include "mld/mld_timers.h"
#include "mld/mld_wire.h"
#include "mute_kernel.h"
#include "script_reader.h"
#include "tests/support/invariants.h"

#include <algorithm>
#include <array>
#include <net/if.h>
#include <vector>

namespace world {

namespace {

// What the proxy finds on the router when it starts.
struct surroundings {
  std::span<const char> if_inet6; // ends with a NUL that is not part of it
  std::span<const mute::network_interface> interfaces;
  name_pointers downstream;
  std::int32_t downstream_count;
};

constexpr short is_up = IFF_UP | IFF_MULTICAST;

constexpr char usual_addresses[] = "fe800000000000000000000000000002 02 40 20 80 x2\n"
                                   "fe800000000000000000000000000003 03 40 20 80 x3\n"
                                   "fe800000000000000000000000000004 04 40 20 80 x4\n"
                                   "fe800000000000000000000000000028 28 40 20 80 x40\n";
constexpr std::array<mute::network_interface, 4> usual_interfaces{
    {{"x2", is_up}, {"x3", is_up}, {"x4", is_up}, {"x40", is_up}}};

// A dial-up link upstream; some of the LAN's names do not belong to the LAN.
constexpr char mixed_addresses[] = "20010db8000000000000000000000003 03 40 00 80 x3\n"
                                   "not a line of this table\n"
                                   "fe800000000000000000000000000002 02 40 20 80 x2\n"
                                   "fe800000000000000000000000000003 03 40 20 80 x3\n"
                                   "fe800000000000000000000000000005 05 40 20 80 x5ppp\n"
                                   "fe800000000000000000000000000006 06 40 20 80 x6nas\n";
constexpr std::array<mute::network_interface, 5> mixed_interfaces{
    {{"x1", is_up | IFF_LOOPBACK}, {"x2", is_up | IFF_POINTOPOINT}, {"x3", is_up}, {"x5ppp", is_up}, {"x6nas", is_up}}};

// An interface that has no link-local address yet.
constexpr char early_addresses[] = "fe800000000000000000000000000002 02 40 20 80 x2\n";

constexpr std::array<surroundings, 3> all_surroundings{
    {{usual_addresses, usual_interfaces, {"x3", "x4", "x40"}, 3},
     {mixed_addresses, mixed_interfaces, {"x1", "x5ppp", "x3", "x6nas"}, 4},
     {early_addresses, usual_interfaces, {"x3", "x4"}, 2}}};

constexpr std::array<int, 6> arrival_indexes{3, 4, 40, 2, 99, 0};

constexpr ipv6_address ending(std::uint8_t first, std::uint8_t second, std::uint8_t last) {
  ipv6_address made{};
  made[0] = first;
  made[1] = second;
  made[15] = last;
  return made;
}

constexpr std::array<ipv6_address, 10> groups{
    ending(0xff, 0x0e, 1), ending(0xff, 0x0e, 2), ending(0xff, 0x05, 3), ending(0xff, 0x3e, 4), ending(0xff, 0x02, 5),
    ending(0xff, 0x0e, 6), ending(0x20, 0x01, 7), ipv6_address{},        ending(0xff, 0x12, 8), ending(0xff, 0x0e, 0)};

constexpr std::array<ipv6_address, 14> sources{ending(0x20, 0x01, 1),  ending(0x20, 0x01, 2),  ending(0x20, 0x01, 3),
                                               ending(0x20, 0x01, 4),  ending(0x20, 0x01, 5),  ending(0x20, 0x01, 6),
                                               ending(0x20, 0x01, 7),  ending(0x20, 0x01, 8),  ending(0x20, 0x01, 9),
                                               ending(0x20, 0x01, 10), ending(0x20, 0x01, 11), ending(0x20, 0x01, 12),
                                               ipv6_address{},         ending(0xff, 0x0e, 1)};

// Lower and higher than the interfaces' own addresses, and unspecified.
constexpr std::array<ipv6_address, 6> hosts{ending(0xfe, 0x80, 0x50), ending(0xfe, 0x80, 0x51),
                                            ending(0xfe, 0x80, 0x01), ipv6_address{},
                                            ending(0xfe, 0x80, 0x03), ending(0x00, 0x00, 0x01)};

bool IsRunning = false;
int HostsLeft = 0; // in pool and lists at the last check

void append(std::vector<std::uint8_t> &bytes, const ipv6_address &address) {
  bytes.insert(bytes.end(), address.begin(), address.end());
}

// Groups 0 to 9 come from the table; the rest are many, to empty the pools.
ipv6_address group_number(std::uint8_t number) {
  return number < groups.size() ? groups[number] : ending(0xff, 0x0e, number);
}

constexpr std::size_t kinds_of_records = 9; // 0, the six of MLDv2, and two beyond

void append_record(std::vector<std::uint8_t> &bytes, script_reader &script) {
  const std::uint8_t kind = script.below(kinds_of_records);
  const std::uint8_t group = script.byte();
  const std::uint8_t source_count = script.below(13);
  bytes.insert(bytes.end(), {kind, 0, 0, source_count});
  append(bytes, group_number(group));
  for (int i = 0; i < source_count; ++i) {
    append(bytes, sources[script.below(sources.size())]);
  }
}

std::vector<std::uint8_t> made_report(script_reader &script) {
  constexpr int most_records = 4;
  const auto records = static_cast<std::uint8_t>(1 + script.below(most_records));
  std::vector<std::uint8_t> bytes{ICMPV6_MLD2_REPORT, 0, 0, 0, 0, 0, 0, records};
  for (int i = 0; i < records; ++i) {
    append_record(bytes, script);
  }
  return bytes;
}

std::vector<std::uint8_t> made_v1_message(std::uint8_t type, script_reader &script) {
  std::vector<std::uint8_t> bytes{type, 0, 0, 0, 0, 0, 0, 0};
  append(bytes, group_number(script.byte()));
  return bytes;
}

std::vector<std::uint8_t> raw_message(script_reader &script) {
  const std::size_t length = std::size_t{script.byte()} * 8;
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < length && !script.is_at_end(); ++i) {
    bytes.push_back(script.byte());
  }
  return bytes;
}

void deliver(const std::vector<std::uint8_t> &bytes, int ifindex, const ipv6_address &sender, bool has_packet_info) {
  mute::Kernel.next = {bytes, sender.data(), nullptr, ifindex, has_packet_info};
  mld_network_socket_read_data();
}

int lan_index(script_reader &script) {
  constexpr std::size_t lan_interfaces = 3;
  return arrival_indexes[script.below(lan_interfaces)];
}

void deliver_from_lan(const std::vector<std::uint8_t> &bytes, script_reader &script) {
  const int ifindex = lan_index(script);
  deliver(bytes, ifindex, hosts[script.below(hosts.size())], true);
}

void deliver_from_elsewhere(script_reader &script) {
  const int ifindex = arrival_indexes[script.below(arrival_indexes.size())];
  const bool has_packet_info = script.below(2) == 0;
  const bool is_query = script.below(2) == 0;
  const std::vector<std::uint8_t> bytes = is_query ? made_v1_message(ICMPV6_MGM_QUERY, script) : made_report(script);
  deliver(bytes, ifindex, hosts[script.below(hosts.size())], has_packet_info);
}

constexpr std::size_t longest_burst = 160; // the largest pool has 128 records

// The same report for one group after the other: enough to empty a pool.
void deliver_burst(script_reader &script) {
  const std::uint8_t kind = script.below(kinds_of_records);
  const auto has_source = static_cast<std::uint8_t>(script.below(2));
  const int ifindex = lan_index(script);
  const ipv6_address &sender = hosts[script.below(hosts.size())];
  std::uint8_t group = script.byte();
  for (int more = script.below(longest_burst); more >= 0; --more, ++group) {
    std::vector<std::uint8_t> bytes{ICMPV6_MLD2_REPORT, 0, 0, 0, 0, 0, 0, 1, kind, 0, 0, has_source};
    append(bytes, group_number(group));
    append(bytes, sources[0]);
    deliver(bytes, ifindex, sender, true);
  }
}

void start_in(const surroundings &found) {
  malloc_counter = 0;
  free_counter = 0;
  MldBlock = 0;
  MldStartUpQueryIsSend = 0;
  mld_tmp_origin = In6AddrAny;
  UpstreamInterfacesName = "x2";
  DownstreamInterfacesName = found.downstream;
  DownstreamInterfacesNum = found.downstream_count;
  mute::Kernel.interfaces = found.interfaces;
  mute::Kernel.file = found.if_inet6.first(found.if_inet6.size() - 1);
  init_mld_config();
  IsRunning = init_mld_socket() == 0 && init_mld_group() == 0 && init_mld_host() == 0 && init_mld_query() == 0 &&
              mld_create_network_list() == 0 && mld_check_upstream_interface() == 0;
  HostsLeft = MLD_HOST_POOL_SIZE;
}

void restart(script_reader &script) {
  stop_mld();
  const surroundings &found = all_surroundings[script.below(all_surroundings.size())];
  plan_refusals_of_start(script);
  start_in(found);
}

mld_step next_step(script_reader &script) {
  const auto step = static_cast<mld_step>(script.below(static_cast<std::size_t>(mld_step::count)));
  return step < mld_step::v1_report ? mld_step::report : step;
}

void run_step(script_reader &script) {
  switch (next_step(script)) {
  case mld_step::v1_report:
    deliver_from_lan(made_v1_message(ICMPV6_MGM_REPORT, script), script);
    break;
  case mld_step::v1_query:
    deliver_from_lan(made_v1_message(ICMPV6_MGM_QUERY, script), script);
    break;
  case mld_step::raw_message:
    deliver_from_lan(raw_message(script), script);
    break;
  case mld_step::tick:
    mld_router_timer_expired();
    break;
  case mld_step::many_ticks:
    for (int ticks = script.byte(); ticks >= 0; --ticks) {
      mld_router_timer_expired();
    }
    break;
  case mld_step::refusals:
    plan_refusals(script);
    break;
  case mld_step::state_dump:
    write_state_dump();
    break;
  case mld_step::restart:
    restart(script);
    break;
  case mld_step::message_from_elsewhere:
    deliver_from_elsewhere(script);
    break;
  case mld_step::burst:
    deliver_burst(script);
    break;
  case mld_step::report:
    deliver_from_lan(made_report(script), script);
    break;
  case mld_step::count:
    break;
  }
}

} // namespace

void start_mld() { start_in(all_surroundings[0]); }

void stop_mld() {
  scripted::record_count count;
  check_mld_records(count);
  const bool was_running = IsRunning;
  mld_proxy_stop();
  const auto lost = static_cast<int>(mute::release_what_is_lost());
  if (was_running && lost != MLD_HOST_POOL_SIZE - count.hosts) {
    mute::fail("blocks lost: " + std::to_string(lost) + ", hosts left: " + std::to_string(count.hosts));
  }
  IsRunning = false;
}

void check_mld() {
  scripted::record_count count;
  const std::string complaint = check_mld_records(count);
  if (!complaint.empty()) {
    mute::fail(complaint);
  }
  if (!IsRunning) {
    return;
  }
  if (count.groups != MLD_GROUP_POOL_SIZE || count.queries != MLD_QUERY_POOL_SIZE || count.hosts > HostsLeft) {
    mute::fail("records: " + std::to_string(count.groups) + " groups, " + std::to_string(count.queries) + " queries, " +
               std::to_string(count.hosts) + " hosts");
  }
  HostsLeft = count.hosts;
}

void run_mld_step(std::span<const std::uint8_t> bytes) {
  script_reader script{bytes, 0};
  run_step(script);
  check_mld();
}

void quiet_down_mld() {
  constexpr int seconds_per_hour = 3600;
  for (int second = 0; second < seconds_per_hour; ++second) {
    tick_mld();
  }
  for (const mld_interface *intr = list_first<mld_interface>(&MldRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
    if (list_get_head(&intr->groups) != nullptr || (intr->role == MLD_ROLE_DOWNSTREAM && intr->is_querier != 1)) {
      mute::fail("a timer got stuck");
    }
  }
}

void tick_mld() {
  mld_router_timer_expired();
  check_mld();
}

void run_mld_script(std::span<const std::uint8_t> bytes) {
  mute::Kernel.refusals = {};
  start_mld();
  script_reader script{bytes, 0};
  while (!script.is_at_end()) {
    if (!IsRunning) {
      stop_mld();
      start_mld();
    }
    run_step(script);
    check_mld();
  }
  mute::Kernel.refusals = {};
  stop_mld();
}

} // namespace world

#include "igmp_world.h"

#include "core/index_table.h"
#include "core/memory.h"
#include "core/settings.h"
#include "core/state_dump.h"
#include "igmp/igmp_interface.h"
#include "igmp/igmp_receive.h"
#include "igmp/igmp_router.h"
#include "igmp/igmp_shutdown.h"
#include "igmp/igmp_socket.h"
#include "igmp/igmp_timers.h"
#include "mute_kernel.h"
#include "platform/nvram.h"
#include "platform/nvram_file.h"
#include "script_reader.h"
#include "tests/support/invariants.h"

#include <array>
#include <net/if.h>
#include <utility>
#include <vector>

namespace world {

namespace {

using ipv4_bytes = std::array<std::uint8_t, 4>;

// What the proxy finds on the router when it starts.
struct surroundings {
  std::span<const mute::network_interface> interfaces;
  std::span<const char> nvram; // ends with a NUL that is not part of it
};

constexpr short is_up = IFF_UP | IFF_MULTICAST;
constexpr std::array<mute::network_interface, 4> usual_interfaces{
    {{"x2", is_up}, {"x3", is_up}, {"x4", is_up}, {"x5", is_up}}};
// A dial-up link upstream, and interfaces that do not belong to the LAN.
constexpr std::array<mute::network_interface, 7> mixed_interfaces{{{"x1", is_up | IFF_LOOPBACK},
                                                                   {"x2", is_up | IFF_POINTOPOINT},
                                                                   {"x3", is_up},
                                                                   {"x4", is_up},
                                                                   {"x5ppp", is_up},
                                                                   {"x6", is_up}, // to be ignored
                                                                   {"x7nas", is_up}}};
constexpr std::array<mute::network_interface, 2> interfaces_of_lan{{{"x3", is_up}, {"x4", is_up}}};

constexpr char no_keys[] = "";
constexpr char translator_keys[] = "lan_ifname=lan\nipv6_natpt_ifname=translator\nx3=lan\nx4=translator\n";

constexpr std::array<surroundings, 4> all_surroundings{{{usual_interfaces, no_keys},
                                                        {mixed_interfaces, translator_keys},
                                                        {interfaces_of_lan, no_keys}, // nothing is upstream
                                                        {{}, no_keys}}};

constexpr std::array<int, 6> arrival_indexes{3, 4, 5, 2, 99, 0};
constexpr std::array<std::uint8_t, 6> types{0x11, 0x12, 0x16, 0x17, 0x22, 0xff};

// Link-local, special and ordinary groups in both byte orders.
constexpr std::array<ipv4_bytes, 10> groups{
    ipv4_bytes{239, 1, 2, 3}, {239, 1, 2, 4},  {224, 0, 0, 1}, {1, 0, 0, 224}, {239, 255, 255, 250},
    {250, 255, 255, 239},     {224, 0, 0, 22}, {0, 0, 0, 0},   {232, 1, 1, 1}, {255, 255, 255, 255}};

// Lower and higher than the interfaces' own addresses in either byte order.
constexpr std::array<ipv4_bytes, 4> hosts{ipv4_bytes{192, 0, 2, 1}, {192, 0, 2, 200}, {10, 0, 0, 1}, {0, 0, 0, 0}};

constexpr ipv4_bytes destination{224, 0, 0, 1};

constexpr std::array<proxy_mode, 2> modes{PROXY_MODE_4TO4, PROXY_MODE_4TO6};

bool IsRunning = false;

// Groups 0 to 9 come from the table; the rest are many, to empty the pools.
ipv4_bytes group_number(std::uint8_t number) {
  return number < groups.size() ? groups[number] : ipv4_bytes{239, 2, 0, number};
}

void append(std::vector<std::uint8_t> &bytes, const ipv4_bytes &address) {
  bytes.insert(bytes.end(), address.begin(), address.end());
}

// An IPv4 header without options, then the message.
std::vector<std::uint8_t> datagram(std::uint8_t type, const ipv4_bytes &group, const ipv4_bytes &sender) {
  std::vector<std::uint8_t> bytes{0x45, 0, 0, 28, 0, 0, 0, 0, 1, 2, 0, 0};
  append(bytes, sender);
  append(bytes, destination);
  bytes.insert(bytes.end(), {type, 0, 0, 0});
  append(bytes, group);
  return bytes;
}

std::vector<std::uint8_t> made_datagram(script_reader &script) {
  const std::uint8_t type = types[script.below(types.size())];
  const ipv4_bytes group = group_number(script.byte());
  return datagram(type, group, hosts[script.below(hosts.size())]);
}

std::vector<std::uint8_t> raw_datagram(script_reader &script) {
  const std::size_t length = script.byte();
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < length && !script.is_at_end(); ++i) {
    bytes.push_back(script.byte());
  }
  return bytes;
}

void deliver(const std::vector<std::uint8_t> &bytes, int ifindex, bool has_packet_info) {
  constexpr std::size_t sender_offset = 12;
  static constexpr ipv4_bytes nobody{};
  const bool has_sender = bytes.size() >= sender_offset + nobody.size();
  mute::Kernel.next = {bytes, has_sender ? &bytes[sender_offset] : nobody.data(), destination.data(), ifindex,
                       has_packet_info};
  igmp_network_socket_read_data();
}

int lan_index(script_reader &script) {
  constexpr std::size_t lan_interfaces = 3;
  return arrival_indexes[script.below(lan_interfaces)];
}

void deliver_from_lan(const std::vector<std::uint8_t> &bytes, script_reader &script) {
  deliver(bytes, lan_index(script), true);
}

constexpr std::size_t longest_burst = 160; // the largest pool has fewer records

// The same message for one group after the other: enough to empty a pool.
void deliver_burst(script_reader &script) {
  const std::uint8_t type = types[script.below(types.size())];
  const int ifindex = lan_index(script);
  std::uint8_t group = script.byte();
  for (int more = script.below(longest_burst); more >= 0; --more, ++group) {
    deliver(datagram(type, group_number(group), hosts[0]), ifindex, true);
  }
}

void deliver_from_elsewhere(script_reader &script) {
  const int ifindex = arrival_indexes[script.below(arrival_indexes.size())];
  const bool has_packet_info = script.below(2) == 0;
  deliver(made_datagram(script), ifindex, has_packet_info);
}

void check_igmp() {
  scripted::record_count count;
  const std::string complaint = scripted::check_igmp_records(count);
  if (!complaint.empty()) {
    mute::fail(complaint);
  }
  if (IsRunning && (count.groups != IGMP_GROUP_POOL_SIZE || count.queries != IGMP_QUERY_POOL_SIZE)) {
    mute::fail("IGMP records: " + std::to_string(count.groups) + " groups, " + std::to_string(count.queries) +
               " queries");
  }
}

// Read while nothing is refused, or its complaints would fill standard error.
void read_nvram(std::span<const char> contents) {
  const mute::refusal_plan planned = std::exchange(mute::Kernel.refusals, {});
  mute::Kernel.file = contents;
  nvram_file_forget();
  nvram_get("lan_ifname");
  mute::Kernel.refusals = planned;
}

void start_in(const surroundings &found) {
  malloc_counter = 0;
  free_counter = 0;
  IgmpStartUpQueryIsSend = 0;
  LanIndex = 0;
  NatptIndex = 0;
  UpstreamInterfacesName = "x2";
  IgnoreInterfacesName = {"x6"};
  IgnoreInterfacesNum = 1;
  MldPrefix = {0xff, 0x0e};
  mute::Kernel.interfaces = found.interfaces;
  read_nvram(found.nvram.first(found.nvram.size() - 1));
  init_igmp_config();
  IsRunning = init_igmp_socket() == 0 && init_igmp_group() == 0 && init_igmp_query() == 0 &&
              igmp_create_network_list() == 0 && igmp_check_upstream_interface() == 0;
}

void restart(script_reader &script) {
  stop_igmp();
  ProxyMode = modes[script.below(modes.size())];
  ForceNonQuerier = script.below(2);
  const surroundings &found = all_surroundings[script.below(all_surroundings.size())];
  plan_refusals_of_start(script);
  start_in(found);
}

igmp_step next_step(script_reader &script) {
  const auto step = static_cast<igmp_step>(script.below(static_cast<std::size_t>(igmp_step::count)));
  if (step < igmp_step::raw_datagram) {
    return igmp_step::message;
  }
  return step > igmp_step::tick && step < igmp_step::many_ticks ? igmp_step::tick : step;
}

void run_step(script_reader &script) {
  switch (next_step(script)) {
  case igmp_step::raw_datagram:
    deliver_from_lan(raw_datagram(script), script);
    break;
  case igmp_step::tick:
    igmp_router_timer_expired();
    break;
  case igmp_step::many_ticks:
    for (int ticks = script.byte(); ticks >= 0; --ticks) {
      igmp_router_timer_expired();
    }
    break;
  case igmp_step::refusals:
    plan_refusals(script);
    break;
  case igmp_step::state_dump:
    write_state_dump();
    break;
  case igmp_step::restart:
    restart(script);
    break;
  case igmp_step::message_from_elsewhere:
    deliver_from_elsewhere(script);
    break;
  case igmp_step::burst:
    deliver_burst(script);
    break;
  case igmp_step::message:
    deliver_from_lan(made_datagram(script), script);
    break;
  case igmp_step::count:
    break;
  }
}

} // namespace

void start_igmp() { start_in(all_surroundings[0]); }

// A stop after a start that failed half-way through discovery leaves the one record that was not on a list yet.
void stop_igmp() {
  const std::size_t allowed = IsRunning ? 0 : 1;
  igmp_proxy_stop();
  const std::size_t lost = mute::release_what_is_lost();
  if (lost > allowed) {
    mute::fail("IGMP blocks lost: " + std::to_string(lost));
  }
  for (std::int32_t &used_index : index_table) {
    used_index = 0; // entries of interfaces whose VIF was refused or never deleted
  }
  IsRunning = false;
}

void tick_igmp() {
  igmp_router_timer_expired();
  check_igmp();
}

void quiet_down_igmp() {
  constexpr int seconds_per_hour = 3600;
  for (int second = 0; second < seconds_per_hour; ++second) {
    tick_igmp();
  }
  for (const igmp_interface *intr = list_first<igmp_interface>(&IgmpRouter.interfaces); intr != nullptr;
       intr = list_after(intr)) {
    if (list_get_head(&intr->groups) != nullptr || (intr->role == IGMP_ROLE_DOWNSTREAM && intr->is_querier != 1)) {
      mute::fail("an IGMP timer got stuck");
    }
  }
}

void run_igmp_step(std::span<const std::uint8_t> bytes) {
  script_reader script{bytes, 0};
  run_step(script);
  check_igmp();
}

void run_igmp_script(std::span<const std::uint8_t> bytes) {
  mute::Kernel.refusals = {};
  script_reader script{bytes, 0};
  ProxyMode = modes[script.below(modes.size())];
  ForceNonQuerier = 0;
  start_igmp();
  while (!script.is_at_end()) {
    if (!IsRunning) {
      stop_igmp();
      start_igmp();
    }
    run_step(script);
    check_igmp();
  }
  mute::Kernel.refusals = {};
  stop_igmp();
}

} // namespace world
